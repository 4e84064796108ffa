#!/usr/bin/env bash
# Fuzzes every parser of outside bytes, one after the other, and prints what came of it.
#
# usage: scripts/fuzz.sh [SECONDS [TARGET...]]       60 s for each target unless told otherwise
#        scripts/fuzz.sh --keep [TARGET...]          puts what was found into fuzz/corpus, minimised
#
# Installs what is missing (clang, its sanitizers and coverage tools) and builds the preset "fuzz".
# The table goes to build/fuzz/results.txt too, logs and inputs that break something to
# build/fuzz/findings/TARGET. Inputs that reach something new gather in build/fuzz/found/TARGET and
# are where the next run begins. The exit status is 0 only when no target found anything.
set -eu
cd "$(dirname "$0")/.."

build=build/fuzz
results=$build/results.txt
jobs=${FUZZ_JOBS:-$(nproc)}

# ------------------------------------------------------------------------------------------------

build_targets() {
    ./scripts/install-dependencies.sh clang-14 libclang-rt-14-dev llvm-14
    ./scripts/build.sh fuzz
    rm -rf "$build/seeds"
    /usr/bin/python3 fuzz/make_seeds.py "$build/seeds"
}

row_of() { # TARGET: its row of fuzz/targets
    awk -v target="$1" '$1 == target' fuzz/targets
}

options_of() { # TARGET
    echo "-max_len=$(row_of "$1" | awk '{ print $2 }')"
    [ ! -e "fuzz/dict/$1.dict" ] || echo "-dict=$root/fuzz/dict/$1.dict"
}

# ------------------------------------------------------------------------------------------------

fuzz() { # TARGET SECONDS: runs it, by as many processes as there are cores
    local findings=$root/$build/findings/$1 found=$root/$build/found/$1
    rm -rf "$findings"
    mkdir -p "$findings" "$found" "$build/seeds/$1" "fuzz/corpus/$1"
    local options
    mapfile -t options < <(options_of "$1")
    # The processes write their logs where they are started.
    (cd "$findings" && LLVM_PROFILE_FILE=/dev/null "$root/$build/fuzz/fuzz_$1" "${options[@]}" \
        "-max_total_time=$2" "-jobs=$jobs" "-workers=$jobs" -print_final_stats=1 -timeout=20 \
        -rss_limit_mb=4096 -artifact_prefix=input- \
        "$found" "$root/$build/seeds/$1" "$root/fuzz/corpus/$1") >"$findings/fuzz.log" 2>&1 || true
}

line_coverage() { # TARGET: of the files of its row, by everything found so far
    local profile=$build/profiles/$1 files
    read -r _ _ files <<<"$(row_of "$1")"
    mkdir -p "$build/profiles"
    LLVM_PROFILE_FILE=$profile.raw "$build/fuzz/fuzz_$1_replay" "fuzz/corpus/$1" "$build/seeds/$1" \
        "$build/found/$1" >/dev/null 2>&1 || { echo "-"; return; }
    llvm-profdata-14 merge -sparse "$profile.raw" -o "$profile.data"
    llvm-cov-14 report "$build/fuzz/fuzz_$1_replay" -instr-profile="$profile.data" |
        awk -v files=" $files " 'index(files, " " $1 " ") { lines += $8; missed += $9 }
            END { printf "%.1f %%\n", lines ? 100 * (lines - missed) / lines : 0 }'
}

report() { # TARGET SECONDS
    local findings=$build/findings/$1 runs edges features count
    runs=$(cat "$findings"/fuzz-*.log | awk '/^stat::number_of_executed_units/ { sum += $2 } END { print sum + 0 }')
    edges=$(grep -ho 'cov: [0-9]*' "$findings"/fuzz-*.log | awk '$2 > most { most = $2 } END { print most + 0 }')
    features=$(grep -ho 'ft: [0-9]*' "$findings"/fuzz-*.log | awk '$2 > most { most = $2 } END { print most + 0 }')
    count=$(find "$findings" -name 'input-*' ! -name 'input-slow-unit-*' | wc -l)
    # One that did not run found nothing, and says nothing.
    [ "$runs" -gt 0 ] || { tail -n 5 "$findings/fuzz.log" >&2; count=1; }
    printf '%-20s %12d %9d %7d %9d %8s %9d\n' \
        "$1" "$runs" $((runs / $2)) "$edges" "$features" "$(line_coverage "$1")" "$count" | tee -a "$results"
    findings_in_all=$((findings_in_all + count))
}

run_all() { # SECONDS TARGET...
    local seconds=$1 target
    shift
    {
        echo "$(date -u '+%F %T') UTC, $seconds s each with $jobs processes, commit $(git rev-parse --short HEAD)"
        printf '%-20s %12s %9s %7s %9s %8s %9s\n' target runs runs/s edges features lines findings
    } | tee "$results"
    findings_in_all=0
    for target; do
        fuzz "$target" "$seconds"
        report "$target" "$seconds"
    done
    [ $findings_in_all -eq 0 ] || { echo "Inputs that broke something: $build/findings/*/input-*" | tee -a "$results"; exit 1; }
}

edges_of() { # TARGET FOLDER...: how many the inputs in the folders reach
    local options
    mapfile -t options < <(options_of "$1")
    LLVM_PROFILE_FILE=/dev/null "$build/fuzz/fuzz_$1" "${options[@]}" -runs=0 "${@:2}" 2>&1 |
        awk '$2 == "INITED" { edges = $4 } END { print edges + 0 }'
}

keep() { # TARGET...: few inputs that reach every edge that was reached
    local target merged options sources
    for target; do
        mapfile -t options < <(options_of "$target")
        merged=$build/merged/$target
        sources=("$build/seeds/$target" "fuzz/corpus/$target" "$build/found/$target")
        rm -rf "$merged"
        mkdir -p "$merged" "${sources[@]}"
        merge() {
            LLVM_PROFILE_FILE=/dev/null "$build/fuzz/fuzz_$target" "${options[@]}" "$@" \
                "$merged" "${sources[@]}" >"$build/merged/$target.log" 2>&1
        }
        merge -set_cover_merge=1 -use_counters=0
        # Where an input depends on those before it, more of them are needed.
        [ "$(edges_of "$target" "$merged")" -ge "$(edges_of "$target" "${sources[@]}")" ] || merge -merge=1
        rm -rf "fuzz/corpus/$target"
        mv "$merged" "fuzz/corpus/$target"
        printf '%-20s %5d inputs, %8d bytes\n' "$target" "$(find "fuzz/corpus/$target" -type f | wc -l)" \
            "$(find "fuzz/corpus/$target" -type f -printf '%s\n' | awk '{ sum += $1 } END { print sum + 0 }')"
    done
}

# ------------------------------------------------------------------------------------------------

root=$PWD
mode=fuzz
seconds=60
if [ "${1:-}" = --keep ]; then
    mode=keep
    shift
elif [ $# -gt 0 ]; then
    seconds=$1
    shift
fi
[[ $seconds =~ ^[1-9][0-9]*$ ]] || { sed -n '4,5s/^# //p' "$0" >&2; exit 2; }

build_targets
targets=("$@")
[ ${#targets[@]} -gt 0 ] || mapfile -t targets < <(find "$build/fuzz" -name 'fuzz_*_replay' -printf '%f\n' |
    sed 's/^fuzz_//; s/_replay$//' | sort)

if [ "$mode" = keep ]; then
    keep "${targets[@]}"
else
    run_all "$seconds" "${targets[@]}"
fi

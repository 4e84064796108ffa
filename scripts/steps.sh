# shellcheck shell=bash
# For scripts that go on after a step that failed, and add up at the end. To be sourced in the folder
# above this one, with `results` set: an existing folder for JUnit files and logs.
: "${results:?}"
failed_steps=()

step() { # NAME COMMAND...: a step that fails is reported, and the others still run
    local name=$1
    shift
    local begun=$SECONDS status=0
    printf '\n== %s\n' "$name"
    "$@" || status=$?
    [ $status -eq 0 ] || failed_steps+=("$name")
    printf '(%d s)\n' $((SECONDS - begun))
    return $status
}

quietly() { # LOG COMMAND...: shows the end of the log only if the command fails
    local log=$1 status=0
    shift
    "$@" >"$log" 2>&1 || status=$?
    [ $status -eq 0 ] || tail -n 60 "$log"
    return $status
}

# A step without test cases of its own is one.
case_of() { # FILE NAME COMMAND...
    local file=$1 name=$2 status=0 failure=
    shift 2
    "$@" || status=$?
    [ $status -eq 0 ] || failure='<failure/>'
    printf '<testsuite name="%s"><testcase name="%s">%s</testcase></testsuite>\n' \
        "$name" "$name" "$failure" >"$results/$file.xml"
    return $status
}

# After ctest: what is worth reading of its log, and its test cases for the sum.
unit_results() { # LOG BUILD STATUS [NAME]      NAME: whose results they are, where several builds are tried
    local log=$1 name=unit${4:+-$4} file
    [ "$3" -eq 0 ] || grep -vE '^ *[0-9]+/[0-9]+ Test .*Passed|^ *Start ' "$log" | tail -n 400
    tail -n 4 "$log"
    for file in "$2/test-results"/*.xml; do
        [ -e "$file" ] && cp "$file" "$results/$name-$(basename "$file")"
    done
    return "$3"
}

finish() { # the last line says "N passed, N failed"; ends the script
    local name
    printf '\n'
    for name in ${failed_steps[@]+"${failed_steps[@]}"}; do
        printf 'failed: %s\n' "$name"
    done
    /usr/bin/python3 scripts/sum-results.py "$results" ${failed_steps[@]+"${failed_steps[@]}"}
    exit
}

debian_mirror() { # where this machine has its own Debian from
    local codename
    codename=$(sed -n 's/^VERSION_CODENAME=//p' /etc/os-release)
    apt-get indextargets --format "\$(ORIGIN) \$(CODENAME) \$(REPO_URI)" 'Created-By: Packages' |
        sed -n "s/^Debian $codename //p" | head -n 1
}

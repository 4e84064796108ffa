#!/usr/bin/python3
"""Runs a command on this machine in which programs of another one can be started like its own, by the
command itself and by all that it starts: the kernel hands them to an emulator.

usage: run-foreign.py EMULATOR ROOT COMMAND [ARGUMENT ...]

EMULATOR is a qemu-user program with the files of its package beside it, ROOT has the loader and the
libraries of the other machine. The command runs in a user namespace, where the kernel has a list of
emulators of its own; it sees no network but what it makes itself, and this machine does not change.
Before Linux 6.7 there is only one list. Then the machine's own has the emulator as long as the command
runs. Needs root.
"""
import ctypes
import errno
import os
import pathlib
import subprocess
import sys

BINFMT = pathlib.Path("/proc/sys/fs/binfmt_misc")
CLONE_NEWNS, CLONE_NEWUSER, CLONE_NEWNET = 0x00020000, 0x10000000, 0x40000000
MS_REC, MS_PRIVATE = 0x4000, 0x40000
EVERY_ID = "0 0 4294967295\n"

libc = ctypes.CDLL(None, use_errno=True)


def check(result: int, what: str) -> None:
    if result != 0:
        number = ctypes.get_errno()
        raise OSError(number, f"{what}: {os.strerror(number)}")


def mount(kind: str | None, target: pathlib.Path, flags: int = 0) -> None:
    name = kind.encode() if kind else None
    check(libc.mount(name, os.fsencode(target), name, flags, None), f"mount on {target}")


def kernel_line(emulator: pathlib.Path, name: str) -> bytes:
    """What the kernel is told: what such programs begin with, and what runs them. F: it opens the
    emulator at once, so that no other root hides it."""
    packaged = emulator.parents[1] / "share/qemu/binfmt.d" / f"{emulator.name}.conf"
    _, _, kind, offset, magic, mask, _, _ = packaged.read_bytes().strip().split(b":")
    fields = name.encode(), kind, offset, magic, mask, os.fsencode(emulator), b"OPF"
    return b":" + b":".join(fields)


def enter_namespaces() -> None:
    """All ids stay what they are. Only a process outside may write that."""
    ready, entered = os.pipe()
    helper = os.fork()
    if helper == 0:
        os.close(entered)
        os.read(ready, 1)
        process = pathlib.Path("/proc", str(os.getppid()))
        (process / "uid_map").write_text(EVERY_ID)
        (process / "gid_map").write_text(EVERY_ID)
        os._exit(0)
    check(libc.unshare(CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWNET), "unshare")
    os.close(entered)
    if os.waitpid(helper, 0)[1] != 0:
        raise OSError("the ids of the user namespace could not be written")
    mount(None, pathlib.Path("/"), MS_REC | MS_PRIVATE)
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)


def run_privately(line: bytes, command: list[str]) -> None:
    """Does not return. PermissionError when the kernel has only one list."""
    namespaces = pathlib.Path("/run/netns")
    namespaces.mkdir(exist_ok=True)
    enter_namespaces()
    mount("binfmt_misc", BINFMT)
    mount("tmpfs", namespaces)  # what is made here is of no use to others
    (BINFMT / "register").write_bytes(line)
    os.execvp(command[0], command)


def run_machine_wide(line: bytes, name: str, command: list[str]) -> int:
    if not (BINFMT / "register").exists():
        mount("binfmt_misc", BINFMT)
    (BINFMT / "register").write_bytes(line)
    try:
        return subprocess.run(command).returncode
    finally:
        (BINFMT / name).write_text("-1")


def has_private_lists() -> bool:
    """Tried in a child, since there is no way back out of the namespaces."""
    child = os.fork()
    if child == 0:
        try:
            enter_namespaces()
            mount("binfmt_misc", BINFMT)
        except OSError as problem:
            os._exit(1 if problem.errno == errno.EPERM else 0)
        os._exit(0)
    return os.waitpid(child, 0)[1] == 0


def main() -> int:
    if len(sys.argv) < 4:
        print(__doc__.split("\n\n")[1], file=sys.stderr)
        return 2
    emulator, root, command = (
        pathlib.Path(sys.argv[1]).absolute(), pathlib.Path(sys.argv[2]).absolute(), sys.argv[3:],
    )  # fmt: skip
    os.environ["QEMU_LD_PREFIX"] = str(root)
    os.environ["VELM_EMULATED"] = "1"  # tests/fakes/emulated.h
    name = f"velm-{os.getpid()}-{emulator.name}"
    try:
        line = kernel_line(emulator, name)
        if has_private_lists():
            run_privately(line, command)
        return run_machine_wide(line, name, command)
    except (OSError, subprocess.SubprocessError) as problem:
        print(f"{emulator.name} cannot run programs here: {problem}", file=sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main())

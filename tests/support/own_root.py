"""A mount namespace for one test: its own /tmp, /run, /etc, /dev and /usr/local.

The daemon reads and writes fixed paths. In this namespace, these paths are not the files of the machine.
"""

import contextlib
import ctypes
import errno
import os
import shutil

CLONE_FS, CLONE_NEWNS = 0x00000200, 0x00020000
MS_NOSUID, MS_BIND, MS_REC, MS_PRIVATE = 2, 4096, 16384, 1 << 18

_libc = ctypes.CDLL(None, use_errno=True)
_DEVICES = ("null", "zero", "full", "random", "urandom", "tty")


def _check(result, what):
    if result != 0:
        number = ctypes.get_errno()
        raise OSError(number, f"{what}: {os.strerror(number)}")


def mount(source, target, kind=None, flags=0, options=None):
    encode = lambda text: None if text is None else text.encode()
    _check(_libc.mount(encode(source), encode(target), encode(kind), flags, encode(options)),
           f"mount {target}")


def unmount(target):
    _check(_libc.umount2(target.encode(), 2), f"umount {target}")


def mount_empty(path, options):
    mount("tmpfs", path, "tmpfs", MS_NOSUID, options)


def _replace_by_empty(path, options, trees):
    """Replaces `path` by an empty folder, except for the trees below it."""
    os.makedirs("/mnt/full", exist_ok=True)
    mount_empty("/mnt/full", options)
    for tree in trees:
        if os.path.commonpath([tree, path]) == path:
            place = "/mnt/full/" + os.path.relpath(tree, path)
            os.makedirs(place, exist_ok=True)
            mount(tree, place, flags=MS_BIND | MS_REC)
    mount("/mnt/full", path, flags=MS_BIND | MS_REC)
    unmount("/mnt/full")


def _fill(trees):
    """Fills /mnt with the content of the new folders, before the new folders hide the machine's folders."""
    mount_empty("/mnt", "mode=0755")
    try:
        shutil.copytree("/etc", "/mnt/etc", symlinks=True, ignore_dangling_symlinks=True)
    except shutil.Error as error:
        # Another program may remove a file meanwhile.
        if not all(os.strerror(errno.ENOENT) in why for _, _, why in error.args[0]):
            raise
    # The copy of the machine's file would make tests ask the machine's name servers.
    with contextlib.suppress(FileNotFoundError):
        os.remove("/mnt/etc/resolv.conf")
    with open("/mnt/etc/resolv.conf", "w") as file:
        file.write("nameserver 127.0.0.1\n")
    os.mkdir("/mnt/dev")
    for device in _DEVICES:
        open(f"/mnt/dev/{device}", "w").close()
        mount(f"/dev/{device}", f"/mnt/dev/{device}", flags=MS_BIND)
    for folder in ("shm", "pts"):
        os.mkdir(f"/mnt/dev/{folder}")
        mount(f"/dev/{folder}", f"/mnt/dev/{folder}", flags=MS_BIND)
    os.symlink("/proc/self/fd", "/mnt/dev/fd")
    os.symlink("pts/ptmx", "/mnt/dev/ptmx")
    mount("/mnt/etc", "/etc", flags=MS_BIND)
    mount("/mnt/dev", "/dev", flags=MS_BIND | MS_REC)
    _replace_by_empty("/tmp", "mode=1777", trees)
    _replace_by_empty("/run", "mode=0755", trees)
    _replace_by_empty("/usr/local", "mode=0755", trees)
    os.makedirs("/usr/local/lumad")


@contextlib.contextmanager
def own_root(*trees):
    """Inside the block, this thread and the processes that it starts see the private folders, and
    the trees without changes."""
    before = os.open("/proc/self/ns/mnt", os.O_RDONLY)
    folder = os.getcwd()
    _check(_libc.unshare(CLONE_NEWNS), "unshare (these tests need mount namespaces)")
    try:
        mount(None, "/", flags=MS_REC | MS_PRIVATE)
        _fill(trees)
        yield
    finally:
        # If other threads still run, they share the working folder with this thread. The kernel then does not
        # allow this thread to leave the namespace.
        _check(_libc.unshare(CLONE_FS), "unshare")
        _check(_libc.setns(before, CLONE_NEWNS), "setns")
        os.close(before)
        os.chdir(folder)

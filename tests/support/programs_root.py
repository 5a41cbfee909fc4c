"""Runs programs of a Debian that is unpacked and not installed, in the namespaces of a test.

The files that they write are in memory and are lost after the test. The programs use the test's
/run, /tmp, /dev, /proc and network, and its host names and trusted certificates.
"""

import os
import shutil
import subprocess

from .own_root import MS_BIND, MS_REC, mount, mount_empty, unmount

_SHARED = ("/run", "/tmp", "/dev", "/proc")


class ProgramsRoot:
    """@param root the subfolder "root" of the folder that programs_root.sh has printed"""

    def __init__(self, root):
        self.path = "/mnt/programs/root"
        os.makedirs("/mnt/programs")
        mount_empty("/mnt/programs", "mode=0755")
        for folder in ("root", "upper", "work"):
            os.mkdir(f"/mnt/programs/{folder}")
        mount("overlay", self.path, "overlay",
              options=f"lowerdir={root},upperdir=/mnt/programs/upper,workdir=/mnt/programs/work")
        for folder in _SHARED:
            mount(folder, self.path + folder, flags=MS_BIND | MS_REC)
        for file in ("/etc/hosts", "/etc/resolv.conf"):
            with open(file) as source, open(self.path + file, "w") as copy:
                copy.write(source.read())

    def trust(self, certificates):
        """Makes programs trust the certificates of a file."""
        folder = f"{self.path}/etc/ssl/certs"
        os.makedirs(folder, exist_ok=True)
        shutil.copy(certificates, f"{folder}/ca-certificates.crt")

    def write(self, path, text, mode=0o644):
        os.makedirs(os.path.dirname(self.path + path), exist_ok=True)
        with open(self.path + path, "w") as file:
            os.fchmod(file.fileno(), mode)
            file.write(text)

    def command(self, *words):
        return ["chroot", self.path, *words]

    def run(self, *words, environment=None, limit=300, check=True):
        done = subprocess.run(self.command(*words), capture_output=True, text=True, timeout=limit,
                              stdin=subprocess.DEVNULL,
                              env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "HOME": "/tmp",
                                   "LC_ALL": "C.UTF-8", **(environment or {})})
        assert not check or done.returncode == 0, f"{words}: {done.stdout}{done.stderr}"
        return done

    def close(self):
        """Unmounts the root, and everything that is mounted below it."""
        unmount("/mnt/programs")

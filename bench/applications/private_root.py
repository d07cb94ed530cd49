"""A directory that holds everything of a run: the unpacked packages, the databases, the servers'
files. Packages are unpacked, not installed: no script of theirs runs, and the machine's own
configuration stays as it is."""
import os
import pathlib
import re
import shutil
import subprocess
import tempfile

OWNER, GROUP = "nobody", "nogroup"
# Libraries of all applications, which name each other's files relative to their own.
_SHARED = ("usr/share/php", "usr/share/javascript")
# Where a package names a file by its absolute path, in PHP text.
_QUOTED_PATH = re.compile(rb"""(['"])(/(?:etc|usr/share|var/lib)/[\w.+/-]+)""")
_OWN = re.compile(r"/(?:etc|var/lib)/(?:wordpress|mediawiki|dokuwiki|phpmyadmin)(?:/|$)")


class PrivateRoot:
    def __init__(self):
        self.path = pathlib.Path(tempfile.mkdtemp(prefix="kaq-applications-"))
        self.path.chmod(0o755)
        # Whatever is made by tempfile from now on lies in here, and goes with it.
        tempfile.tempdir = str(self.path)

    def __truediv__(self, name):
        return self.path / name

    def unpack(self, archives):
        for archive in sorted(pathlib.Path(archives).glob("*.deb")):
            subprocess.run(["dpkg", "-x", str(archive), str(self.path)], check=True, timeout=300,
                           stdin=subprocess.DEVNULL)
        for name in _SHARED:
            self._bring_inside(name)
        self._lead_links_inside()
        self._lead_paths_inside()

    def _bring_inside(self, name):
        """Copies what packages that are installed have there: only the others were unpacked."""
        outside = pathlib.Path("/", name)
        for directory, _, files in os.walk(outside):
            inside = self._inside(directory)
            inside.mkdir(parents=True, exist_ok=True)
            for file in files:
                if not os.path.lexists(inside / file):
                    shutil.copy2(os.path.join(directory, file), inside / file)

    def _inside(self, path):
        return self.path / str(path).lstrip("/")

    def _lead_links_inside(self):
        """Absolute links lead to the file in here; what only the machine has, to the machine's."""
        for directory, directories, files in os.walk(self.path):
            for name in directories + files:
                link = pathlib.Path(directory, name)
                if not link.is_symlink():
                    continue
                target = os.readlink(link)
                if os.path.isabs(target):
                    if self._inside(target).exists() or _OWN.match(target):
                        self._lead(link, self._inside(target))
                elif not link.exists():
                    outside = os.path.normpath("/" + os.path.relpath(
                        os.path.join(directory, target), self.path))
                    if os.path.exists(outside):
                        self._lead(link, outside)

    @staticmethod
    def _lead(link, target):
        link.unlink()
        link.symlink_to(target)

    def _lead_paths_inside(self):
        """The same for paths that the packages' PHP files name."""
        def lead(match):
            path = match.group(2).decode()
            if _OWN.match(path) or self._inside(path).exists():
                return match.group(1) + (str(self.path) + path).encode()
            return match.group(0)
        for top in ("etc", "usr/share"):
            for path in (self.path / top).rglob("*.php"):
                if path.is_symlink() or not path.is_file():
                    continue
                text = path.read_bytes()
                led = _QUOTED_PATH.sub(lead, text)
                if led != text:
                    path.write_bytes(led)

    def directory(self, name, mode=0o755):
        """A directory that the servers' processes may write to."""
        path = self.path / name
        path.mkdir(parents=True, exist_ok=True)
        path.chmod(mode)
        hand_over(path)
        return path

    def write(self, name, text):
        path = self.path / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text, encoding="utf-8")
        return path

    def remove(self):
        tempfile.tempdir = None
        shutil.rmtree(self.path, ignore_errors=True)


def hand_over(path):
    """Gives a file, or a directory and all that is in it, to whom the servers run as."""
    if os.geteuid() != 0:
        return
    shutil.chown(path, OWNER, GROUP)
    for directory, directories, files in os.walk(path):
        for name in directories + files:
            inner = os.path.join(directory, name)
            if not os.path.islink(inner):
                shutil.chown(inner, OWNER, GROUP)

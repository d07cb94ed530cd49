"""A root of Debian in namespaces of its own, so that ports and processes are its own, too."""
import pathlib
import shutil
import signal
import subprocess
import time

SECONDS = 120
# Of which nobody says that a package left it.
PASSING = ("dev", "proc", "sys", "tmp", "run", "var/cache", "var/log", "var/lib/dpkg")


class Root:
    """The root, below `directory`."""

    def __init__(self, archive, directory):
        self.directory = directory / "root"
        self.directory.mkdir()
        subprocess.run(["tar", "-xf", archive, "-C", self.directory], check=True, timeout=SECONDS)
        # Its first process holds the namespaces: with it everything in them ends.
        self.holder = subprocess.Popen(
            ["unshare", "--net", "--mount", "--pid", "--ipc", "--fork", "--kill-child", "sh", "-c",
             'ip link set lo up && mount -t proc proc "$0/proc" && echo ready && '
             'exec chroot "$0" sleep infinity', str(self.directory)], stdout=subprocess.PIPE, text=True)
        assert self.holder.stdout.readline() == "ready\n"
        children = pathlib.Path("/proc/%d/task/%d/children" % (self.holder.pid, self.holder.pid))
        self.first = children.read_text().split()[0]
        # Only then it has its root.
        self.until(lambda: pathlib.Path("/proc/%s/root" % self.first).resolve() == self.directory)

    @staticmethod
    def until(condition, seconds=30):
        """What the condition gives, once that is something."""
        deadline = time.monotonic() + seconds
        while True:
            found = condition()
            if found:
                return found
            assert time.monotonic() < deadline
            time.sleep(0.2)

    def path(self, name):
        """Of a file in it, from outside."""
        return self.directory / name.lstrip("/")

    def command(self, *words, user=None):
        """What runs these in it; as a service's user without any privilege."""
        enter = ["nsenter", "--target", self.first, "--net", "--mount", "--pid", "--ipc", "--root",
                 "--wd=/", "env", "-i", "PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C.UTF-8",
                 "DEBIAN_FRONTEND=noninteractive"]
        if user:
            enter += ["setpriv", "--reuid", user, "--regid", user, "--init-groups",
                      "--no-new-privs", "--bounding-set=-all", "--inh-caps=-all"]
        return enter + [str(word) for word in words]

    def run(self, *words, user=None, status=0):
        """(standard output, standard error) of a command that ends so."""
        done = subprocess.run(self.command(*words, user=user), capture_output=True, text=True,
                              stdin=subprocess.DEVNULL, timeout=SECONDS)
        assert done.returncode == status, done
        return done.stdout, done.stderr

    def start(self, *words, user=None):
        """A command that goes on, in a group of its own: Apache ends its whole group."""
        return subprocess.Popen(self.command(*words, user=user), stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL, text=True,
                                start_new_session=True)

    def install(self, *packages):
        """What dpkg says; without anything that could be fetched."""
        for package in packages:
            shutil.copy(package, self.path("tmp"))
        said, _ = self.run("dpkg", "--install", *("/tmp/" + package.name for package in packages))
        assert self.run("dpkg", "--audit") == ("", "")
        return said

    def files(self):
        """{path: (mode, owner, group, size or target)} of all that stays; of /etc the contents."""
        found = {}
        pending = [self.directory]
        while pending:
            for entry in pending.pop().iterdir():
                name = str(entry.relative_to(self.directory))
                if name in PASSING or name.endswith(("-", "-old")):
                    continue
                facts = entry.lstat()
                what = ""
                if entry.is_symlink():
                    what = str(entry.readlink())
                elif entry.is_dir():
                    pending.append(entry)
                elif name.startswith("etc/"):
                    what = entry.read_bytes()
                found[name] = (oct(facts.st_mode), facts.st_uid, facts.st_gid, what)
        return found

    def end(self):
        """Ends everything in it, and removes it."""
        self.holder.send_signal(signal.SIGKILL)
        self.holder.wait(SECONDS)
        self.holder.stdout.close()
        shutil.rmtree(self.directory)

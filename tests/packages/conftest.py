"""What the packages are tried with: the packages themselves, unpacked; and a fresh root of Debian."""
import os
import pathlib
import subprocess
import sys

import pytest

sys.path.append(str(pathlib.Path(__file__).resolve().parent))

from debian_root import Root  # noqa: E402

SECONDS = 120
SOURCES = pathlib.Path(os.environ["KAQ_SOURCE_DIR"])
MADE = pathlib.Path(os.environ["KAQ_PACKAGES"])


def one(pattern):
    """The only file that matches."""
    found = list(MADE.glob(pattern))
    assert len(found) == 1, found
    return found[0]


class Package:
    """A package, and what it holds below `files`."""

    def __init__(self, path, directory):
        self.path, self.files = path, directory / "files"
        self.control = directory / "control"
        subprocess.run(["dpkg-deb", "-x", path, self.files], check=True, timeout=SECONDS)
        subprocess.run(["dpkg-deb", "-e", path, self.control], check=True, timeout=SECONDS)

    def field(self, name):
        """Of the control file."""
        return subprocess.run(["dpkg-deb", "-f", self.path, name], check=True, text=True,
                              capture_output=True, timeout=SECONDS).stdout.strip()

    def listing(self):
        """{path: "drwxr-xr-x root/root"}."""
        text = subprocess.run(["dpkg-deb", "-c", self.path], check=True, text=True,
                              capture_output=True, timeout=SECONDS).stdout
        rows = [line.split(maxsplit=5) for line in text.splitlines()]
        return {row[5].lstrip("."): row[0] + " " + row[1] for row in rows}


@pytest.fixture(scope="session")
def collector(tmp_path_factory):
    return Package(one("first/kaq-collector_*.deb"), tmp_path_factory.mktemp("collector"))


@pytest.fixture(scope="session")
def extension(tmp_path_factory):
    return Package(one("first/php8.2-kaq_*.deb"), tmp_path_factory.mktemp("extension"))


@pytest.fixture(scope="module")
def root(tmp_path_factory):
    archive = os.environ.get("KAQ_DEBIAN_ROOT")
    if not archive:
        pytest.skip("there is no root of Debian: " + os.environ["KAQ_DEBIAN_ROOT_MISSING"])
    directory = tmp_path_factory.mktemp("debian")
    running = Root(archive, directory)
    yield running
    running.end()

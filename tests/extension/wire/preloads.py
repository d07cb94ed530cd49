"""Libraries that are loaded into an engine before all others, from sources in this directory."""
import pathlib
import subprocess

import pytest

BUILD_DEADLINE = 60.0


def built(engine, source, directory):
    """The environment that has the library loaded, which is left in `directory`."""
    if "libasan" in pathlib.Path(engine.php).read_bytes().decode("latin-1"):
        pytest.skip("nothing may be loaded before a sanitizer")
    library = directory / (source + ".so")
    subprocess.run(["g++", "-std=gnu++17", "-O0", "-Wall", "-Wextra", "-fPIC", "-shared",
                    str(pathlib.Path(__file__).with_name(source)), "-o", str(library)],
                   stdin=subprocess.DEVNULL, check=True, timeout=BUILD_DEADLINE)
    return {"LD_PRELOAD": str(library)}

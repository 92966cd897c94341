"""What `cmake --install` installs, and a program built outside of the tree against it."""

import os
import pathlib
import subprocess

PROGRAMS = {"norvel-bench", "norvel-cli", "norvel-miner", "norveld"}
CONSUMER = pathlib.Path(__file__).with_name("consumer")


def run(*command: object) -> str:
    done = subprocess.run([str(word) for word in command], capture_output=True, text=True, check=False)
    assert done.returncode == 0, (command, done.stdout[-2000:], done.stderr[-2000:])
    return done.stdout


def test_a_program_is_built_against_the_installed_library(tmp_path: pathlib.Path) -> None:
    prefix, build = tmp_path / "prefix", tmp_path / "build"
    run("cmake", "--install", os.environ["NORVEL_BUILD"], "--prefix", prefix)
    assert {path.name for path in (prefix / "bin").iterdir()} == PROGRAMS
    assert [path.name for path in prefix.glob("lib/**/*.a")] == ["libnorvel.a"]
    # What is installed must not lead back to the tree that it was built in.
    for file in prefix.glob("lib/**/*.cmake"):
        assert str(CONSUMER.parents[2]) not in file.read_text(), file

    include = prefix / "include" / "norvel"
    headers = [f'#include "{path.relative_to(include)}"\n' for path in sorted(include.rglob("*.h"))]
    everything = tmp_path / "everything.cpp"
    everything.write_text("".join(headers))
    run(os.environ["NORVEL_CXX"], "-std=c++20", "-fsyntax-only", f"-I{include}", everything)

    run("cmake", "-S", CONSUMER, "-B", build, "-G", "Ninja", f"-DCMAKE_PREFIX_PATH={prefix}",
        f"-DCMAKE_CXX_COMPILER={os.environ['NORVEL_CXX']}", f"-DCMAKE_CXX_FLAGS={os.environ['NORVEL_CXX_FLAGS']}")
    run("cmake", "--build", build)
    hash_text = run(build / "consumer", tmp_path / "chain").split()[-1]
    info = run(prefix / "bin" / "norveld", "--datadir", tmp_path / "chain", "--check")
    assert len(hash_text) == 64 and hash_text in info, (hash_text, info)

"""What cmake is told before it builds: presets that agree, and settings that it refuses with a
reason.
"""

import json
import os
import subprocess

import pytest

from conftest import BUILD, ROOT, need

PRESETS = json.loads((ROOT / "CMakePresets.json").read_text())
CONFIGURED = {preset["name"]: preset for preset in PRESETS["configurePresets"]}


def names(kind):
    return sorted(preset["name"] for preset in PRESETS[kind] if not preset.get("hidden"))


def variables(name):
    """Of a preset and of those that it inherits from."""
    preset = CONFIGURED[name]
    inherited = variables(preset["inherits"]) if "inherits" in preset else {}
    return {**inherited, **preset.get("cacheVariables", {})}


def has_tests(name):
    return "ON" in (variables(name)["REPLAY_TESTS"], variables(name)["REPLAY_CORPUS"])


def test_each_preset_can_be_built():
    assert names("buildPresets") == names("configurePresets")


def test_the_presets_that_have_tests_can_be_tested_and_no_others():
    tested = [name for name in names("configurePresets") if has_tests(name)]
    assert {"release", "asan-gcc"} <= set(tested)
    assert names("testPresets") == tested


@pytest.mark.parametrize("kind", ["buildPresets", "testPresets"])
def test_a_preset_is_named_as_what_it_is_for(kind):
    assert all(preset["name"] == preset["configurePreset"] for preset in PRESETS[kind])


@pytest.mark.parametrize("option", ["REPLAY_TESTS", "REPLAY_CORPUS", "REPLAY_FUZZ"])
def test_what_needs_the_receiver_says_so_where_it_is_left_out(tmp_path, option):
    need("cmake")
    words = ["cmake", "-S", ROOT, "-B", tmp_path, "-D", "REPLAY_RECEIVER=OFF", "-D", f"{option}=ON"]
    done = subprocess.run(words, capture_output=True, text=True)
    assert done.returncode != 0
    assert "need the receiver: turn REPLAY_RECEIVER on" in " ".join(done.stderr.split())


def test_no_folder_is_packed_as_it_lies_there(tmp_path):
    """What the target package_source runs."""
    need("cpack")
    words = ["cpack", "--config", BUILD / "CPackSourceConfig.cmake", "-B", tmp_path]
    done = subprocess.run([os.fspath(word) for word in words], capture_output=True, text=True)
    assert done.returncode != 0
    assert "packaging/source_tarball makes the tarball of the sources" in done.stderr
    assert [path for path in tmp_path.rglob("*") if path.is_file()] == []

# What fuzzing kept, read again, and new random inputs (scripts/test fuzz): whatever reads a file survives them, and leaves
# the file as it is, or whole (fuzz.cpp). What breaks something stays in build/fuzz/inputs; keep it in tests/inputs.
import os

import pytest
from conftest import A, D, REPOSITORY, TOOL, service

FUZZ = f"{TOOL.parent}/tests/opalcrt-fuzz"
INPUTS, FOUND = REPOSITORY / "tests/inputs", REPOSITORY / "build/fuzz/inputs"
SECONDS = int(os.environ.get("FUZZ_SECONDS", 60))
OPTIONS = f"-max_total_time={SECONDS} -timeout=20 -use_value_profile=1 -dict={INPUTS}/dictionary"
FILES = {"cert": A / "c/cert.pem", "default": A / "DEFAULT", "definition": D / "p.cfg", "info": A / "INFO"}
FILES.update({"renew": A / "c/renew.json", "services": A / "SERVICES"})
TARGETS = pytest.mark.parametrize("target", FILES)


@pytest.fixture
def store(w):
    for prefix in ("RSA-", "ECC-"):
        w.crt("c", prefix)
    w.write(info={"c": {"services": [service("s")]}})
    w.sh("rm /dev/log")  # Nobody reads millions of lines.


@TARGETS
def test_kept_inputs_do_no_harm(w, store, target):
    w.sh(f"export FUZZ_FILE={FILES[target]}; exec {FUZZ} {INPUTS}/{target}/*")


@pytest.mark.slow
@pytest.mark.fuzz
@TARGETS
def test_random_inputs_do_no_harm(w, store, target):
    found = FOUND / target
    found.mkdir(parents=True, exist_ok=True)
    command = f"{FUZZ} {OPTIONS} -artifact_prefix={found}/ {found} {INPUTS}/{target}"
    said = w.run(f"FUZZ_FILE={FILES[target]} exec {command} 2>&1 | tail -n 30", timeout=SECONDS + 60)
    assert said.status == 0 and "Done " in said.out

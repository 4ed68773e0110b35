"""The documents: their commands work where they say, and what they name exists.

Commands of docs/operating.md and of the man pages are typed on the gateway of scripts/demo --stay,
others in the source tree, together with the shell functions that earlier blocks of the document
define. A block that is not typed says why behind its ```sh, which no reader sees.
"""
import json
import os
import re
import shlex
import subprocess

import jsonschema
import pytest

from harness.sandbox import BIN, REPOSITORY
from harness.waiting import SCALE, poll

pytestmark = pytest.mark.skipif(SCALE != 1, reason="they are the same for every build")
DOCUMENTS = {path.name: path.read_text() for path in
             sorted([*REPOSITORY.glob("*.md"), *REPOSITORY.glob("docs/*.md")])}
MANUALS = {path.name: path.read_text() for path in sorted(REPOSITORY.glob("packaging/man/*"))}
FOLDERS = {path.name for path in REPOSITORY.iterdir() if path.is_dir()} - {".git", "build"}
# Names in the documents that nothing in the tree has.
FOREIGN = {"IPAddressAllow", "MADV_PAGEOUT", "MADV_RANDOM", "M_ARENA_MAX", "OPENSSL_ia32cap",
           "PerSourcePenaltyExemptList", "SO_BUF_LOCK", "TCP_MAXSEG", "epoll_wait", "perf",
           "prlimit", "sched_setattr", "strace",
           "tcp_rmem", "tcp_wmem", "tlsv1", "UeaZr47xPftos38CdA1lQymRGumnKg"}


def blocks():
    """Document, commands, and the answers that the paragraph before them announces."""
    for name, text in {**DOCUMENTS, **MANUALS}.items():
        functions = ""
        for found in re.finditer(r"^```sh(.*)\n((?s:.*?))^```$|^\.Dl ()(.*)", text, re.M):
            commands, before = found[2] or found[4], text[:found.start()]
            answers = re.findall(r"[Aa]nswers?\s+`([^`]+)`", before.rstrip().rpartition("\n\n")[2])
            if " forward " in commands:  # goes on until it is interrupted
                url = f"http://127.0.0.1:{commands.split()[-1]}/"
                commands += (" & curl -sSfo /dev/null --retry 9 --retry-delay 1 "
                             f"--retry-connrefused {url}; kill $!")
            if "skip=" not in (found[1] or ""):
                line = before.count("\n") + 1
                yield pytest.param(name, functions + commands, answers, id=f"{name}:{line}")
                functions += "".join(re.findall(r"^\w+\(\) \{.*\}\n", commands, re.M))


def spans():
    """(document, text) of each text in backticks outside blocks"""
    for name, text in DOCUMENTS.items():
        for span in re.findall(r"`([^`\n]+)`", re.sub(r"^```(?s:.*?)^```$", "", text, flags=re.M)):
            yield name, span


def run(*command):
    done = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          timeout=60, check=False, cwd=REPOSITORY)
    assert done.returncode == 0, done.stdout + done.stderr
    return done.stdout


@pytest.fixture(scope="module")
def ways_in(workspace):
    """The ssh commands that scripts/demo --stay prints: through the tunnel, beside it, and over
    HTTPS."""
    path = workspace / "demo"
    with open(path, "wb") as output, subprocess.Popen(
            ["setpriv", "--pdeathsig", "TERM", REPOSITORY / "scripts/demo", "--stay"],
            stdin=subprocess.DEVNULL, stdout=output, stderr=output,
            env={**os.environ, "RA_BUILD_DIR": str(BIN.parent)}) as demo:
        try:
            poll(lambda: demo.poll() is not None or "Ctrl-C ends it" in path.read_text(), 120,
                 path.read_text)
            assert demo.poll() is None, path.read_text()
            yield [shlex.split(line) + ["-o", "BatchMode=yes"]
                   for line in re.findall("^  (ssh .*)", path.read_text(), re.M)]
        finally:
            demo.terminate()


def test_demo_tells_how_to_log_in(ways_in):
    assert [run(*way, "hostname") for way in ways_in] == ["gateway\n"] * 3


def test_demo_with_several_gateways():
    done = subprocess.run(
        [REPOSITORY / "scripts/demo", "--gateways", "2"], stdin=subprocess.DEVNULL,
        capture_output=True, text=True, timeout=60 * SCALE, check=False,
        env={**os.environ, "RA_BUILD_DIR": str(BIN.parent)})
    assert done.returncode == 0 and "2 answers" in done.stdout, done.stdout + done.stderr


@pytest.mark.parametrize("document, commands, answers", blocks())
def test_commands(request, document, commands, answers):
    if document == "operating.md" or document in MANUALS:
        beside = request.getfixturevalue("ways_in")[1]
        lines = run(*beside, f"bash -ec {shlex.quote(commands)}").splitlines()
    else:
        lines = run("bash", "-ec", commands.replace("build/release", str(BIN.parent))).splitlines()
    for answer in answers:
        while lines and not lines[0].startswith(answer.partition("…")[0]):
            lines.pop(0)
        assert lines, f"not answered: {answer}"


def test_entry_of_the_ssh_configuration(ways_in):
    _, entry = MANUALS["remote-access.1"].split(".Bd -literal -offset indent\n")
    entry = shlex.quote(entry.partition(".Ed")[0])
    copies = run(*ways_in[1], f"echo {entry} >>.ssh/config; scp -q /etc/hosts gw-001:copied; "
                 "sftp -q gw-001:copied again; ssh gw-001 cat again copied")
    assert copies.count("backend.demo") == 2


@pytest.mark.parametrize("manual", [name for name in MANUALS if name != "remote_access_daemon.8"])
def test_options_are_told_alike(manual):
    program = BIN / manual.rpartition(".")[0]
    commands = set(re.findall(r"^\.(?:It )?Cm ([a-z-]+(?: [a-z-]+)*)", MANUALS[manual], re.M))
    helped = "".join(run(program, *words.split(), "--help") for words in ["", *commands])
    options = set(re.findall(r"\B--([a-z-]+)", helped)) - {"help", "version"}
    assert options == set(re.findall(r"Fl -([a-z-]+)", MANUALS[manual]))
    completion = REPOSITORY / "packaging/completion" / program.name
    if completion.exists():
        assert options <= set(re.findall(r"\B--([a-z-]+)", completion.read_text()))


def test_links_lead_somewhere():
    for name, text in DOCUMENTS.items():
        home = REPOSITORY / "docs" if (REPOSITORY / "docs" / name).exists() else REPOSITORY
        for path, anchor in re.findall(r"\]\((?!https?:)([^)#\s]*)#?([^)\s]*)\)", text):
            target = home / path if path else home / name
            assert target.exists(), f"{name}: {path}"
            titles = re.findall("^#+ (.*)", target.read_text(), re.M) if anchor else []
            assert not anchor or anchor in [re.sub(r"[^\w -]", "", title).lower().replace(" ", "-")
                                            for title in titles], f"{name}: {path}#{anchor}"


def test_operators_file_fits_its_schema():
    """That the back end takes the example is policy_test's matter."""
    schema = json.loads((REPOSITORY / "docs/operators.schema.json").read_text())
    jsonschema.Draft202012Validator.check_schema(schema)
    validator = jsonschema.Draft202012Validator(schema)
    example = json.loads(re.search(r"```json\n(.*?)^```", DOCUMENTS["policy.md"], re.S | re.M)[1])
    assert not [*validator.iter_errors(example)]
    described = set(re.findall(r"^\| `(\w+)` \|", DOCUMENTS["policy.md"], re.M))
    for name in ["operator", "token", "device_group", "grant"]:
        members = schema["$defs"][name]
        assert members["properties"].keys() <= described, name
        assert not members["additionalProperties"]
    accepted = {path.name for path in (REPOSITORY / "tests/fuzz/corpus/policy_file").iterdir()
                if fits(validator, path)}
    assert accepted == {"example", "smallest", "strictest", "recorded", "patterns",
                        # What a schema cannot say.
                        "doubled_member", "limit_without_effect", "no_such_day",
                        "two_of_one_account", "unknown_group"}


def fits(validator, path):
    try:
        return validator.is_valid(json.loads(path.read_text()))
    except ValueError:
        return False


def tree(*folders):
    paths = [path for folder in folders for path in (REPOSITORY / folder).rglob("*")
             if not {"corpus", "__pycache__"} & set(path.parts)]
    for path in [*paths, *(REPOSITORY / name for name in ("CMakeLists.txt", "CMakePresets.json"))]:
        if path.is_file() and path.suffix != ".md":
            yield f"{path} {path.read_text(errors='replace')}"


def test_names_exist():
    words = {word for text in tree(*FOLDERS) for word in re.findall(r"\w+", text)} | FOREIGN
    words.update(re.findall(r"^(\w+)\(\) \{", DOCUMENTS["operating.md"], re.M))
    unknown = [f"{name}: {span}" for name, span in spans()
               if set(re.findall(r"\b[A-Za-z_]\w{2,}", span.replace("-D", ""))) - words]
    for name, text in DOCUMENTS.items():
        unknown += [f"{name}: {path}" for path in
                    re.findall(r"(?<![\w/*.])([a-z]+(?:/[\w.*-]*[a-z0-9*])+)", text)
                    if path.split("/")[0] in FOLDERS and not [*REPOSITORY.glob(path + "*")]]
        for script, options in re.findall(r"(scripts/[a-z-]+)(?![\w/])([^`\n#]*)", text):
            usage = (REPOSITORY / script).read_text()
            unknown += [f"{name}: {script} {option}" for option in
                        re.findall(r"--[a-z-]+", options) if option not in usage]
    assert not unknown


def test_every_unit_stands_on_the_map():
    on_map = DOCUMENTS["architecture.md"].partition("## Map")[2].partition("\n## ")[0]
    units = {path.stem for folder in ("src", "common", "utility", "platform", "devgateway", "ctl",
                                      "operator", "backend", "keep", "keeper")
             for path in (REPOSITORY / folder).rglob("*.cpp")}
    assert len(units) > 90
    assert not units - set(re.findall(r"`([\w-]+)`", on_map))


def test_texts_of_the_log_are_those_of_the_sources():
    daemon, others = ["".join(tree(*folders)) for folders in
                      (("src", "common"), ("utility", "platform", "devgateway"))]
    daemon, others = (re.sub(r'"\s*"', "", text).replace(r'\"', '"') for text in (daemon, others))
    log = DOCUMENTS["log-messages.md"].partition("## Level I")[2]
    items = re.findall(r"^- ((?:`[^`\n]+`(?:, |,\n  )?)*)(?=: | \([IWE]|:\n)", log, re.M)
    texts = [text for item in items for text in re.findall("`([^`]+)`", item)]
    assert len(items) == len(re.findall("^- ", log, re.M)) and len(texts) > 150
    assert not [text for text in texts
                if not all(part in daemon + others for part in text.split("…"))]
    written = re.findall(r'RA_(?:WARN|ERROR)(?:\(|_FOR\([^,]*,)\s*"(.*?)(?:\\n)?"[,)]', daemon)
    assert len(written) > 100
    assert not set(written) - {"%s", *re.findall("`([^`\n]+)`", DOCUMENTS["log-messages.md"])}

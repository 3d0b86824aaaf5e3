#!/usr/bin/python3
"""Tests what the documents say. Started by scripts/docs-test.

    scripts/docs-test [WORD]      only the checks whose name contains WORD

Messages: the lists of DIAGNOSTICS in man/ and the texts in src/ must be the same, for each command.

Links: those of README, docs/ and man/ lead to what is installed beside them.

Examples: blocks of shell commands are run as they stand, in the order of the document, by bash with -e -u and
pipefail. A command that fails ends the example. A block of text after them is what they must have printed; "..." in it
stands for anything. What the examples find on their machine is made by docs-test/machine.sh. The examples of a manual
page and each section ("## ") of a document are run in a fresh world. What the first section of a document does is done
before each of the others, too.

                      commands           text
    man/*             .Bd -literal       .Bd -unfilled
    README, docs/*     ```sh              ```text

Other blocks of a document (```console, ```json) are not looked at. What a reader must not do, because it is the mishap
that the text is about, stands in a comment: <!-- sh, the commands, -->.
"""

import os
import pathlib
import re
import subprocess
import sys

PAGES = sorted(pathlib.Path("man").iterdir())
DOCUMENTS = [pathlib.Path(path) for path in ("README.md", "docs/administration.md", "docs/packaging.md")]
REPORT = pathlib.Path("build/docs-test")

# The commands from which the messages of a source can come: their pages must list them.
REGISTER, UNREGISTER, CHECKSUM = "opalcrtregister", "opalcrtunregister", "opalcrtchecksum"
COMMANDS = {
    "src/frontend/main.cpp": [CHECKSUM],
    "src/frontend/unregisterer.cpp": [UNREGISTER],
    "src/frontend/services_list.cpp": [REGISTER, UNREGISTER],
    "src/frontend/": [REGISTER],
    "src/assign/": [REGISTER],
    "src/checksum/": [CHECKSUM],
    "src/common/libcrypto.cpp": [REGISTER, CHECKSUM],
    "src/common/": [REGISTER, UNREGISTER],
    "src/deploy/": [REGISTER],
    "src/mkcert/": [REGISTER],
    "src/platform/": [REGISTER],
    "src/store/": [REGISTER],
}
STRINGS = r'((?:"(?:[^"\\]|\\.)*"\s*)+)'
MESSAGE = re.compile(r"\bLOG_(?:ERROR|ERROR_STATE|DEBUG_LINE)\(\s*" + STRINGS + r"|\bLOG_ERROR_LONG\(\s*\w+,\s*" + STRINGS)
OPENSSL_STEP = re.compile(r"\bLogOpenSSLError\(\s*" + STRINGS)
PRINTED = re.compile(r"\bprintf\(\s*" + STRINGS)
ANY_LOG = re.compile(r"\b(?:LOG_[A-Z_]+|LogOpenSSLError)\(")

word = sys.argv[1] if len(sys.argv) > 1 else ""
counts = {True: 0, False: 0}


def check(name, problems):
    """One check: it has passed when there is no problem."""
    counts[not problems] += 1
    print(f"{'FAILED' if problems else 'passed'}  {name}")
    for problem in problems:
        print("        " + problem.replace("\n", "\n        "))


def said_by(command):
    """The problem of a linter, if any."""
    run = subprocess.run(command, capture_output=True, text=True, check=False)
    said = (run.stdout + run.stderr).strip()
    return [said or f"status {run.returncode}"] if run.returncode != 0 else []


def shell_scripts():
    for path in subprocess.check_output(["git", "ls-files"], text=True).splitlines():
        with open(path, "rb") as file:
            if re.match(rb"#! ?/bin/(ba)?sh\b|# shellcheck shell=", file.readline()):
                yield path


def plain(text):
    """A message's text without what differs from line to line, for comparison."""
    text = re.sub(r"%[a-z]|<[^>]*>", "@", text.replace("\\&", ""))
    return re.sub(r"\s", "", re.sub(r"@+", "@", text))


def unquote(strings):
    return "".join(re.findall(r'"((?:[^"\\]|\\.)*)"', strings)).replace("\\n", "\n").rstrip("\n")


def commands_of(source):
    return max((key for key in COMMANDS if source.startswith(key)), key=len, default=None)


def messages_of_sources():
    """What the sources say: which page must list which message, {page: {plain text: what it is}}; all the texts; and
    what could not be read."""
    wanted = {command: {} for command in (REGISTER, UNREGISTER, CHECKSUM)}
    everything = set()
    problems = []
    for path in sorted(pathlib.Path("src").glob("*/*.cpp")):
        text = path.read_text()
        texts = [unquote(one or two) for one, two in MESSAGE.findall(text)]
        texts += [unquote(step) + " [%s]" for step in OPENSSL_STEP.findall(text)]
        if len(texts) != len(ANY_LOG.findall(text)) - (path.name == "openssl_error.cpp"):  # one is a definition
            problems.append(f"{path}: a message's text is not read by MESSAGE in docs-test/check.py")
        if path.name == "openssl_error.cpp":
            texts.remove("%s [%s]")  # the steps are listed instead
        if path.parent.name == "frontend":
            for line in PRINTED.findall(text):
                texts.append(unquote(line))
        everything.update(texts)
        source = commands_of(str(path))
        if texts and source is None:
            problems.append(f"{path}: COMMANDS in docs-test/check.py does not know it")
        for command in COMMANDS.get(source, []):
            wanted[command].update({plain(t): f'"{t}" of {path}' for t in texts})
        if path.name == "main.cpp":  # the two others print a usage and no report
            for command in (REGISTER, UNREGISTER):
                wanted[command].update({plain(t): f'"{t}" of {path}' for t in texts if "report" not in t})
            for text in texts:
                if text.startswith("usage: "):
                    del wanted[CHECKSUM][plain(text)]
    return wanted, everything, problems


def is_beginning_of(text, message):
    """Whether a line of the log with this message may begin with the text."""
    words = message.split(" ")
    for count in range(1, len(words) + 1):
        beginning = " ".join(words[:count])
        pattern = ".*".join(re.escape(piece) for piece in re.split(r"%[a-z]", beginning))
        if len(pattern) >= 8 and re.fullmatch(pattern, text):
            return True
    return False


def check_messages():
    wanted, everything, problems = messages_of_sources()
    check("messages of src are read", problems)
    known = {text for texts in wanted.values() for text in texts}
    for command, texts in wanted.items():
        page = pathlib.Path(f"man/{command}.8").read_text()
        diagnostics = page[page.index("\n.Sh DIAGNOSTICS"):]
        listed = {plain(line): line for line in re.findall(r"^\.It (.*)", diagnostics, re.M)}
        problems = [f"not in the page: {texts[text]}" for text in texts if text not in listed]
        problems += [f"not in src: {listed[text]}" for text in listed if text not in known]
        check(f"messages of {command}: {len(texts)}", problems)

    readme = pathlib.Path("README.md").read_text()
    table = readme[readme.index("| Symptom |"):].split("\n\n")[0]
    quoted = [text for row in table.splitlines() for cell in row.split("|")[1:3] for text in re.findall("`(.*?)`", cell)]
    lines = {text: re.sub(r"( \[0x\w+)? \.\.\.$", "", text).rstrip() for text in quoted}
    problems = [f"nothing says {text}" for text, line in lines.items()
                if not any(is_beginning_of(line, message.rstrip()) for message in everything)]
    check(f"messages that README quotes: {len(lines)}", problems)


def check_links():
    """README, docs/ and examples/ are what is installed, side by side: no link leads anywhere else."""
    problems = []
    for path in ["README.md", *map(str, sorted(pathlib.Path("docs").glob("*.md"))), *map(str, PAGES)]:
        text = pathlib.Path(path).read_text()
        targets = [os.path.join(os.path.dirname(path), one) for one in re.findall(r"\]\((?!\w+:)([^)#]+)", text)]
        targets += re.findall(r"/usr/share/doc/opalcrt/(\S+)", text)
        problems += [f"{path}: {one}" for one in map(os.path.normpath, targets)
                     if not os.path.exists(one) or one.split("/")[0] not in ("README.md", "docs", "examples")]
    check("links between the documents", problems)


def blocks_of_page(path):
    """(line, is it commands, text) of the blocks of EXAMPLES."""
    examples = None
    block = None
    for number, line in enumerate(path.read_text().splitlines(), 1):
        if line.startswith(".Sh "):
            examples = line == ".Sh EXAMPLES"
        elif examples and line.startswith(".Bd "):
            block = (number, line.startswith(".Bd -literal"), [])
        elif examples and line == ".Ed":
            yield block[0], block[1], "\n".join(block[2]) + "\n"
            block = None
        elif block:
            block[2].append(line.replace("\\&", "").replace("\\(aq", "'").replace("\\(dq", '"').replace("\\e", "\\"))


def sections_of(path):
    """{title: [(line, is it commands, text)]} of a document."""
    sections = {}
    title = "top"
    fence = None
    for number, line in enumerate(path.read_text().splitlines(), 1):
        if fence is None and line.startswith("## "):
            title = line[3:]
        elif fence is None and line.startswith(("```", "<!-- ")):
            fence = (number, line.split("```")[-1].split("<!-- ")[-1], [])
        elif fence and line in ("```", "-->"):
            if fence[1] in ("sh", "text"):
                sections.setdefault(title, []).append((fence[0], fence[1] == "sh", "\n".join(fence[2]) + "\n"))
            fence = None
        elif fence:
            fence[2].append(line)
    return sections


def matches(expected, printed):
    pattern = ".*".join(re.escape(piece) for piece in expected.rstrip("\n").split("..."))
    return re.fullmatch(pattern, printed.rstrip("\n"), re.S)


def run_example(path, title, blocks):
    """Runs the blocks in one world; the problems."""
    folder = REPORT / re.sub(r"[^A-Za-z0-9]+", "-", f"{path.stem} {title}")
    subprocess.run(["rm", "-rf", folder], check=True)
    folder.mkdir(parents=True)
    names = [f"{number:04}" for number, is_commands, _ in blocks if is_commands]
    for number, is_commands, text in blocks:
        if is_commands:
            (folder / f"{number:04}").write_text(text)
    run = subprocess.run(["scripts/world", "unshare", "--net", "bash", "docs-test/machine.sh", folder, *names],
                         capture_output=True, text=True, check=False)
    where = [(run.stdout + run.stderr).strip() or f"status {run.returncode}"] if run.returncode != 0 else []
    if where:
        return where
    printed = None
    for number, is_commands, text in blocks:
        if is_commands:
            printed = (folder / f"{number:04}.out").read_text()
        elif printed is None:
            return [f"line {number} tells what was printed, but nothing was run"]
        elif not matches(text, printed):
            return [f"line {number} says:\n{text}but this was printed:\n{printed}"]
        else:
            printed = None
    return []


def main():
    if word in "shellcheck":
        for script in shell_scripts():
            check(f"shellcheck {script}", said_by(["shellcheck", "-x", "-P", "SCRIPTDIR", script]))
    if word in "mandoc":
        for page in PAGES:
            check(f"mandoc {page}", said_by(["mandoc", "-T", "lint", "-W", "warning", page]))
    if word in "messages":
        check_messages()
    if word in "links":
        check_links()
    examples = [(page, "EXAMPLES", list(blocks_of_page(page))) for page in PAGES]
    for path in DOCUMENTS:
        sections = [(path, title, blocks) for title, blocks in sections_of(path).items()]
        examples += sections[:1] + [(path, title, sections[0][2] + blocks) for _, title, blocks in sections[1:]]
    for path, title, blocks in examples:
        name = f"{path}: {title}"
        if blocks and word in name:
            check(f"{name}, {sum(is_commands for _, is_commands, _ in blocks)} blocks", run_example(path, title, blocks))
    print(f"{counts[True]} passed, {counts[False]} failed")
    return 1 if counts[False] or not counts[True] else 0


sys.exit(main())

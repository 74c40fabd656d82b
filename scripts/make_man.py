#!/usr/bin/env python3
"""Builds a tool's manual page from its source page and the tool's own --help.

usage: make_man.py TOOL NAME SOURCE OUT VERSION [EMULATOR...]

SOURCE is a roff page in which these lines are replaced:
  @HELP [ARGS...]@  the tool's `[ARGS...] --help` without its "Exit status:"
                    paragraph, preformatted (the tool runs with NAME as argv[0])
  @EXIT@            the "Exit status:" paragraph of the tool's --help, as text
and @VERSION@ anywhere by VERSION. So the options a page shows are always
those the tool accepts. EMULATOR (e.g. qemu-arm and its arguments) runs a
cross-built tool. Exits 1 with a message when the tool fails or a
placeholder finds nothing.
"""
import re
import subprocess
import sys


def help_text(tool, name, args, emulator):
    if emulator:
        command = emulator + [tool] + args + ["--help"]
        done = subprocess.run(command, capture_output=True, text=True, timeout=60)
        text = done.stdout.replace(tool, name)
    else:
        done = subprocess.run([name] + args + ["--help"], executable=tool, capture_output=True, text=True,
                              timeout=60)
        text = done.stdout
    if done.returncode != 0 or not text.strip():
        sys.exit(f"make_man: `{name} {' '.join(args + ['--help'])}` failed ({done.returncode}): {done.stderr}")
    return text


def split_exit(text):
    """The help without its "Exit status:" paragraph, and that paragraph.
    What comes before a "Usage:" line repeats the page's own description and
    is left out."""
    lines = text.splitlines()
    usage = next((i for i, line in enumerate(lines) if line.startswith("Usage:")), 0)
    text = "\n".join(lines[usage:])
    paragraphs = re.split(r"\n\s*\n", text.strip("\n"))
    rest = [p for p in paragraphs if not p.startswith("Exit status:")]
    status = [p for p in paragraphs if p.startswith("Exit status:")]
    return "\n\n".join(rest), status[0] if status else ""


def escape(line):
    line = line.replace("\\", "\\e").replace("-", "\\-")
    return "\\&" + line if line.startswith((".", "'")) else line


def main():
    if len(sys.argv) < 6:
        sys.exit(__doc__)
    tool, name, source, out, version = sys.argv[1:6]
    emulator = sys.argv[6:]
    lines = []
    with open(source, encoding="utf-8") as page:
        for line in page.read().replace("@VERSION@", version).splitlines():
            match = re.fullmatch(r"@HELP((?: [^@ ]+)*)@", line)
            if match:
                body, _ = split_exit(help_text(tool, name, match.group(1).split(), emulator))
                lines += [".PP", ".nf"] + [escape(l) for l in body.splitlines()] + [".fi"]
            elif line == "@EXIT@":
                _, status = split_exit(help_text(tool, name, [], emulator))
                if not status:
                    sys.exit(f"make_man: {name} --help has no \"Exit status:\" paragraph")
                lines += [escape(l) for l in status[len("Exit status:"):].strip().splitlines()]
            else:
                lines.append(line)
    with open(out, "w", encoding="utf-8") as page:
        page.write("\n".join(lines) + "\n")


if __name__ == "__main__":
    main()

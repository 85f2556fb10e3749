#!/usr/bin/env python3
"""Writes a program's manual page, and for the stonewall command its bash
completion, from the program's own --help, so that neither can fall behind
the command line.

    helpdocs.py PROGRAM --name NAME --summary TEXT --man OUT.1 [--completion OUT]
                [--see-also PAGE ...]

The help is read in the layout both programs print (CLI11's): a description,
"Usage: ...", then "Positionals:", "Options:" and "Subcommands:" sections of
two-space-indented rows, then free text ("Exit codes:" and "Environment:"
paragraphs among it). Subcommands are read recursively.
"""

import argparse
import datetime
import os
import re
import subprocess
import sys

SECTIONS = ("Positionals:", "Options:", "Subcommands:")


class Help:
    def __init__(self, path, text):
        self.path = path  # ["profile", "import"]
        self.description = []
        self.usage = ""
        self.rows = {name: [] for name in SECTIONS}  # [(term, text)]
        self.footer = []
        self.parse(text)

    def parse(self, text):
        lines = text.rstrip("\n").split("\n")
        index = 0
        while index < len(lines) and not lines[index].startswith("Usage:"):
            if lines[index].strip():
                self.description.append(lines[index].strip())
            index += 1
        if index < len(lines):
            self.usage = lines[index][len("Usage:"):].strip()
            index += 1
        section = None
        while index < len(lines):
            line = lines[index]
            if line in SECTIONS:
                section = line
            elif section and line.startswith("  "):
                body = line[2:]
                if body.startswith(" ") and self.rows[section]:
                    term, text = self.rows[section][-1]
                    self.rows[section][-1] = (term, (text + " " + body.strip()).strip())
                else:
                    match = re.match(r"(\S+(?: \S+)*?)(?:\s{2,}(.*))?$", body)
                    self.rows[section].append((match.group(1), match.group(2) or ""))
            elif not line.strip():
                if section and index + 1 < len(lines) and lines[index + 1] not in SECTIONS \
                        and not lines[index + 1].startswith("  "):
                    section = None
                    self.footer = [l.rstrip() for l in lines[index + 1:]]
                    break
            else:
                section = None
                self.footer = [l.rstrip() for l in lines[index:]]
                break
            index += 1
        while self.footer and not self.footer[0]:
            self.footer.pop(0)

    def options(self):
        """[(names, takes_value, value_kind)] of the Options section."""
        result = []
        for term, _ in self.rows["Options:"]:
            names_part, _, value = term.partition(" ")
            names = [n for n in names_part.split(",") if n.startswith("-")]
            result.append((names, bool(value), value.split(":")[0].split(" ")[0]))
        return result

    def subcommands(self):
        return [term.split()[0] for term, _ in self.rows["Subcommands:"]]

    def positionals(self):
        """[(name, choices or None)]."""
        result = []
        for term, _ in self.rows["Positionals:"]:
            name = term.split()[0]
            choices = re.search(r"\{([^}]*)\}", term)
            result.append((name, choices.group(1).split(",") if choices else None))
        return result

    def details(self):
        """The footer up to the exit codes: what a subcommand's help adds."""
        text = []
        for line in self.footer:
            if line.startswith("Exit codes:") or line.startswith("Environment:"):
                break
            text.append(line)
        while text and not text[-1]:
            text.pop()
        return text

    def paragraph(self, heading):
        """The footer paragraph (up to a blank line) that starts with `heading`."""
        out = None
        for line in self.footer:
            if out is None:
                if line.startswith(heading):
                    rest = line[len(heading):].strip()
                    out = [rest] if rest else []
            elif not line.strip():
                break
            else:
                out.append(line)
        return out or []


def read_help(program, path):
    env = dict(os.environ, LC_ALL="C", LANG="C", LANGUAGE="", COLUMNS="80")
    done = subprocess.run([program, *path, "--help"], capture_output=True, text=True, env=env,
                          timeout=60)
    if done.returncode != 0:
        sys.exit(f"helpdocs: {program} {' '.join(path)} --help exited {done.returncode}: "
                 f"{done.stderr.strip()}")
    return Help(path, done.stdout)


def walk(program, path=()):
    helps = [read_help(program, list(path))]
    for name in helps[0].subcommands():
        helps += walk(program, (*path, name))
    return helps


# roff ------------------------------------------------------------------------

def roff(text):
    text = text.replace("\\", "\\e").replace("-", "\\-")
    return "\\&" + text if text[:1] in (".", "'") else text


def roff_lines(lines):
    return "\n".join(roff(line) if line.strip() else ".sp" for line in lines)


def option_rows(rows, skip=()):
    out = []
    for term, text in rows:
        if term.split(" ")[0] in skip:
            continue
        out.append(".TP\n.B " + roff(term) + "\n" + roff(text))
    return out


def man_page(name, summary, helps, see_also, version):
    top = helps[0]
    date = datetime.datetime.utcfromtimestamp(
        int(os.environ.get("SOURCE_DATE_EPOCH", "0")) or int(datetime.datetime.now().timestamp())
    ).strftime("%Y-%m-%d")
    out = [f'.TH {name.upper()} 1 "{date}" "{roff(version)}" "User Commands"',
           ".SH NAME", f"{name} \\- {roff(summary)}",
           ".SH SYNOPSIS", ".B " + roff(top.usage)]
    out += [".SH DESCRIPTION", roff_lines(top.description)]
    if top.details():
        out += [".PP", ".nf", roff_lines(top.details()), ".fi"]
    common = set()
    if top.rows["Options:"]:
        out += [".SH OPTIONS"] + option_rows(top.rows["Options:"])
        common = {term.split(" ")[0] for term, _ in top.rows["Options:"]}
    if top.rows["Positionals:"]:
        out += [".SH ARGUMENTS"] + option_rows(top.rows["Positionals:"])
    if len(helps) > 1:
        out += [".SH COMMANDS",
                "Every command also takes the options above. "
                "Commands that reload the content blocker take "
                "\\fB\\-\\-timeout\\fR \\fISECONDS\\fR as well."]
        for sub in helps[1:]:
            out += [".SS " + roff(" ".join([name, *sub.path])), roff_lines(sub.description),
                    ".PP", "Usage: " + roff(sub.usage)]
            out += option_rows(sub.rows["Positionals:"])
            out += option_rows(sub.rows["Options:"], skip=common | {"--timeout"})
            if sub.subcommands():
                out += [".PP", "Commands: " + roff(", ".join(sub.subcommands())) + "."]
            if sub.details():
                out += [".PP", ".nf", roff_lines(sub.details()), ".fi"]
    exit_codes = top.paragraph("Exit codes:")
    if exit_codes:
        out += [".SH EXIT STATUS", ".nf", roff_lines(exit_codes), ".fi"]
    environment = top.paragraph("Environment:")
    if environment:
        out += [".SH ENVIRONMENT", roff_lines([" ".join(l.strip() for l in environment)])]
    if see_also:
        out += [".SH SEE ALSO"]
        out += [f".BR {page.split('(')[0]} ({page.split('(')[1]}" for page in see_also]
    return "\n".join(out) + "\n"


# bash completion -------------------------------------------------------------

def completion(name, helps):
    function = "_" + re.sub(r"\W", "_", name)
    table = []
    for h in helps:
        key = " ".join([name, *h.path])
        words = [n for names, _, _ in h.options() for n in names]
        valued = [n for names, takes, _ in h.options() if takes for n in names]
        dirs = [n for names, takes, kind in h.options() if takes and kind == "DIR" for n in names]
        files = [n for names, takes, kind in h.options() if takes and kind == "FILE"
                 for n in names]
        choices = [c for _, cs in h.positionals() if cs for c in cs]
        takes_file = any(p == "FILE" for p, _ in h.positionals())
        table.append(f'    ["{key}"]="{" ".join(h.subcommands())}"')
        table.append(f'    ["{key}|options"]="{" ".join(words)}"')
        table.append(f'    ["{key}|valued"]="{" ".join(valued)}"')
        table.append(f'    ["{key}|dirs"]="{" ".join(dirs)}"')
        table.append(f'    ["{key}|files"]="{" ".join(files)}"')
        table.append(f'    ["{key}|choices"]="{" ".join(choices)}"')
        table.append(f'    ["{key}|fileargument"]="{"yes" if takes_file else ""}"')
    body = "\n".join(table)
    return f"""# bash completion for {name}                              -*- shell-script -*-
# Generated from `{name} --help` and the help of every subcommand at build time.

declare -gA {function}_table=(
{body}
)

{function}() {{
    local cur="${{COMP_WORDS[COMP_CWORD]}}" prev="${{COMP_WORDS[COMP_CWORD-1]}}"
    local path="{name}" word i
    # Follow the subcommands typed so far, skipping options and their values.
    for ((i = 1; i < COMP_CWORD; i++)); do
        word="${{COMP_WORDS[i]}}"
        if [[ $word == -* ]]; then
            [[ " ${{{function}_table["$path|valued"]}} " == *" ${{word%%=*}} "* && $word != *=* ]] && ((i++))
            continue
        fi
        if [[ " ${{{function}_table["$path"]}} " == *" $word "* ]]; then
            path="$path $word"
        fi
    done
    if [[ $prev == -* && " ${{{function}_table["$path|valued"]}} " == *" $prev "* ]]; then
        if [[ " ${{{function}_table["$path|dirs"]}} " == *" $prev "* ]]; then
            COMPREPLY=($(compgen -d -- "$cur"))
        elif [[ " ${{{function}_table["$path|files"]}} " == *" $prev "* ]]; then
            COMPREPLY=($(compgen -f -- "$cur"))
        fi
        return
    fi
    if [[ $cur == -* ]]; then
        COMPREPLY=($(compgen -W "${{{function}_table["$path|options"]}}" -- "$cur"))
        return
    fi
    COMPREPLY=($(compgen -W "${{{function}_table["$path"]}} ${{{function}_table["$path|choices"]}}" -- "$cur"))
    if [[ -n ${{{function}_table["$path|fileargument"]}} ]]; then
        COMPREPLY+=($(compgen -f -- "$cur"))
    fi
}}
complete -F {function} {name}
"""


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("program")
    parser.add_argument("--name", required=True)
    parser.add_argument("--summary", required=True)
    parser.add_argument("--man", required=True)
    parser.add_argument("--completion")
    parser.add_argument("--see-also", nargs="*", default=[])
    arguments = parser.parse_args()

    helps = walk(arguments.program)
    version = subprocess.run([arguments.program, "--version"], capture_output=True,
                             text=True).stdout.strip() or arguments.name
    with open(arguments.man, "w", encoding="utf-8") as out:
        out.write(man_page(arguments.name, arguments.summary, helps, arguments.see_also, version))
    if arguments.completion:
        with open(arguments.completion, "w", encoding="utf-8") as out:
            out.write(completion(arguments.name, helps))


if __name__ == "__main__":
    main()

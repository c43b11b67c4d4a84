"""Generates the man pages and the completions for bash and zsh:  program_docs.py QUARN2_CP QUARN2_REPORT OUTPUT

The options come from the programs: those of the compiled programs from their --help, which they print from their tree of
options, those of the Python programs from their argument parsers. The other sections are in share/man/*.in.
"""

import importlib
import os
import re
import subprocess
import sys

TOP = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../..")
# The module of each Python program, below a folder of the sources.
PYTHON = {
    "quarn2-night": ("night", "quarn2_night.main_night"), "quarn2-node": ("night", "quarn2_night.main_node"),
    "quarn2-restore": ("night", "quarn2_night.main_restore"),
    "quarn2-setup": ("night", "quarn2_night.main_setup"), "quarn2_metrics": ("report", "quarn2_views.main_metrics"),
    "quarn2_page": ("report", "quarn2_views.main_page")}
_ROW = re.compile(r"^(?P<indent> +?)(?:-(?P<letter>\w), |    )--(?P<name>[\w-]+)(?P<value> VALUE)?  +(?P<help>\S.*)$")


class Option:
    """`names` are all spellings. `value` is the name of the value, empty for none. `parent` is an option or None."""

    def __init__(self, names, value, text, parent=None):
        self.names, self.value, self.text, self.parent = names, value, text, parent


def options_of_program(program):
    """Returns the options of a compiled program, in the order of its option tree."""
    text = subprocess.run([program, "--help"], capture_output=True, text=True, check=True).stdout
    options, parent = [], None
    for line in text.split("\n\n", 1)[1].splitlines():
        match = _ROW.match(line)
        if not match:
            options[-1].text += " " + line.strip()
            continue
        is_suboption = len(match["indent"]) > 2
        names = ([f"-{match['letter']}"] if match["letter"] else []) + [f"--{match['name']}"]
        option = Option(names, (match["value"] or "").strip(), match["help"], parent if is_suboption else None)
        if not is_suboption:
            parent = option
        options.append(option)
    return options


def options_of_parser(name):
    """Returns the options of a Python program."""
    folder, module = PYTHON[name]
    sys.path.insert(0, os.path.join(TOP, folder))
    parser = importlib.import_module(module).options()
    found = []
    for action in parser._actions:  # a private member, because argparse has no public list of its options
        if action.option_strings:
            value = "" if action.nargs == 0 else (action.metavar or "|".join(action.choices or ["VALUE"]))
            text = (action.help or "") % {"default": action.default}
            found.append(Option(action.option_strings, value, text))
    return found


# --- Man pages ---

def roff(text):
    """Escapes the characters that roff would interpret."""
    text = text.replace("\\", "\\e").replace("-", "\\-")
    return "\\&" + text if text[:1] in ".'" else text


def option_section(options):
    lines = []
    for option in options:
        if option.parent:
            lines.append(".RS")
        names = ", ".join(f"\\fB{roff(name)}\\fR" for name in option.names)
        lines += [".TP", names + (f" \\fI{roff(option.value)}\\fR" if option.value else ""),
                  roff(option.text[:1].upper() + option.text[1:].rstrip(".")) + "."]
        if option.parent:
            lines.append(".RE")
    return "\n".join(lines)


def man_page(template, version, options):
    return template.replace("@VERSION@", version).replace("@OPTIONS@", option_section(options) if options else "")


# --- Bash completion ---

def completion(programs):
    """Returns the completion of all programs. `programs` is {name: options}."""
    lines = ["# bash completion of quarn2_cp and its companions. Generated from their options.", ""]
    for name, options in programs.items():
        function = "_" + name.replace("-", "_")
        top = [word for option in options if not option.parent for word in option.names if word.startswith("--")]
        lines += [f"{function}() {{", "    local word words", f"    words='{' '.join(top)}'",
                  '    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do', "        case $word in"]
        for parent in dict.fromkeys(option.parent for option in options if option.parent):
            below = [word for option in options if option.parent is parent
                     for word in option.names if word.startswith("--")]
            lines.append(f"            {' | '.join(parent.names)}) words+=' {' '.join(below)}' ;;")
        lines += ["            *) ;;", "        esac", "    done",
                  '    if [[ ${COMP_WORDS[COMP_CWORD]} == -* ]]; then',
                  '        mapfile -t COMPREPLY < <(compgen -W "$words" -- "${COMP_WORDS[COMP_CWORD]}")',
                  "    else", '        mapfile -t COMPREPLY < <(compgen -f -- "${COMP_WORDS[COMP_CWORD]}")', "    fi", "}",
                  f"complete -o filenames -F {function} {name}", ""]
    return "\n".join(lines)


# --- Zsh completion ---

def zsh_completion(name, options):
    """Returns the completion of a program. A suboption is completed after its option only."""
    function = "_" + name.replace("-", "_")
    lines = [f"#compdef {name}", f"# zsh completion of {name}. Generated from its options.", "", f"{function}() {{",
             "    local -a options", "    local word"]
    lines += zsh_options([option for option in options if not option.parent], "    ")
    for parent in dict.fromkeys(option.parent for option in options if option.parent):
        lines += ["    for word in ${words[2,CURRENT-1]}; do", "        case $word in",
                  f"            {' | '.join(parent.names)})"]
        lines += zsh_options([option for option in options if option.parent is parent], "                ")
        lines += ["                ;;", "        esac", "    done"]
    lines += ["    if [[ $PREFIX == -* ]]; then", "        _describe -o option options", "    else", "        _files",
              "    fi", "}", "", f"{function} \"$@\"", ""]
    return "\n".join(lines)


def zsh_options(options, indent):
    lines = []
    for option in options:
        text = option.text.replace("\\", "\\\\").replace(":", "\\:").replace("'", "")
        lines += [f"{indent}options+=('{word}:{text}')" for word in option.names if word.startswith("--")]
    return lines


def main():
    compiled = {"quarn2_cp": sys.argv[1], "quarn2_report": sys.argv[2]}
    output = sys.argv[3]
    version = subprocess.run([sys.argv[1], "--version"], capture_output=True, text=True, check=True).stdout.split()[1]
    programs = {name: options_of_program(path) for name, path in compiled.items()}
    programs.update({name: options_of_parser(name) for name in PYTHON})
    templates = os.path.join(TOP, "share/man")
    for file in sorted(os.listdir(templates)):
        page = file.removesuffix(".in")
        with open(os.path.join(templates, file), encoding="utf-8") as source:
            text = man_page(source.read(), version, programs.get(page.rpartition(".")[0]))
        write(os.path.join(output, "man", "man" + page[-1], page), text)
    for name, options in programs.items():
        write(os.path.join(output, "bash-completion/completions", name), completion({name: options}))
        write(os.path.join(output, "zsh/vendor-completions", "_" + name), zsh_completion(name, options))


def write(path, text):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)


if __name__ == "__main__":
    main()

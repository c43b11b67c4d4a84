"""Finds the prose in source files: comments, sentences of documentation and message texts.

The functions read the text of a file and need no compiler, so the names of declarations are found by simple rules.
"""

import ast
import bisect
import io
import re
import tokenize

# Comments for tools, ends of namespaces and headings of sections, which are not sentences.
NO_PROSE = re.compile(r"\s*(NOLINT|clang-format |shellcheck |noqa|namespace( |$)|!/|-- |---|$)")
# The tokens of C++ that can contain any character.
CPP_TOKEN = re.compile(r"""
    (?P<comment> //[^\n]* | /\*.*?\*/)
  | (?P<raw> R"(?P<end>[^(\s]*)\( .*? \)(?P=end)" )
  | (?P<string> "(?:\\.|[^"\\\n])*" )
  | (?P<char> (?<![0-9A-Za-z_])'(?:\\.|[^'\\\n])+' )
""", re.S | re.X)


def _line(text, offset):
    return text.count("\n", 0, offset) + 1


def _clean(lines, markers):
    stripped = [re.sub(rf"^\s*({markers})? ?", "", line).rstrip() for line in lines]
    return "\n".join(stripped).strip("\n")


def _blocks(lines):
    """Yields the entries of each block of consecutive comment lines.

    `lines`: (line, column, text, whether the comment is alone on its line).
    """
    block = []
    for entry in lines:
        joins = block and entry[3] and block[-1][3] and entry[0] == block[-1][0] + 1 and entry[1] == block[-1][1]
        if block and not joins:
            yield block
            block = []
        block.append(entry)
    if block:
        yield block


# --- C++ ---


def _cpp_code(text):
    """Returns the text with blanks instead of comments and strings, and the comments as matches."""
    comments, pieces, done = [], [], 0
    for match in CPP_TOKEN.finditer(text):
        if match["comment"]:
            comments.append(match)
        pieces += [text[done:match.start()], re.sub(r"[^\n]", " ", match[0])]
        done = match.end()
    return "".join([*pieces, text[done:]]), comments


def _cpp_name(header):
    """(kind, name) that a piece of code declares: "namespace", "type", "function", "other" or "block"."""
    header = re.sub(r"\[\[.*?\]\]|__attribute__\s*\(\(.*?\)\)|\b(public|private|protected)\s*:", " ", header, flags=re.S)
    define = re.search(r"#\s*define\s+(\w+)", header)
    if define:
        return "other", define[1]
    header = re.sub(r"^\s*#.*$", " ", header, flags=re.M)
    while re.search(r"<[^<>()]*(\([^()]*\)[^<>()]*)*>", header):
        header = re.sub(r"<[^<>()]*(\([^()]*\)[^<>()]*)*>", " ", header)
    header = header.strip()
    test = re.match(r"TEST\w*\(\s*(\w+),\s*(\w+)", header)
    if test:
        return "function", ".".join(test.groups())
    if re.match(r"(inline )?namespace\b|extern\s*$", header):
        return "namespace", ""
    kind = re.match(r"(?:template\s+)?(?:class|struct|union|enum(?:\s+class)?)\s+([\w:]+)[^()=]*$", header)
    if kind:
        return "type", kind[1]
    call = re.search(r"(operator\s*[^\s\w(]+|operator\s*\(\)|operator\s+[\w:]+|[\w:]*~?[\w:]+)\s*\(", header)
    equals = header.find("=")
    if call and (equals < 0 or call.start() < equals or call[1].startswith("operator")):
        block = re.match(r"(if|for|while|switch|catch|return|else|do|try)\b", header)
        return ("block", "") if block or "](" in header.replace(" ", "") else ("function", call[1])
    words = re.findall(r"[A-Za-z_][\w:]*", header if equals < 0 else header[:equals])
    return "other", words[-1] if words else ""


def _header_after(code, offset):
    """Returns the code from the offset to the end of the head of the next declaration."""
    depth = 0
    for end in range(offset, len(code)):
        character = code[end]
        depth += {"(": 1, ")": -1, "[": 1, "]": -1, "<": 1}.get(character, 0)
        depth -= character == ">" and code[end - 1] not in "-r"  # operator-> and operator>
        if depth < 0 or (depth == 0 and character in ";{}=,"):
            return code[offset:end + 1].rstrip(";{},=")
    return code[offset:]


class _CppScopes:
    """The scopes of a file: for an offset, the types and the function around it."""

    def __init__(self, code):
        self.events, stack, begin = [(0, ())], [], 0
        parentheses = 0
        for match in re.finditer(r"[{};()]", code):
            sign, at = match[0], match.start()
            parentheses += {"(": 1, ")": -1}.get(sign, 0)
            if sign == "{":
                stack.append((_cpp_name(code[begin:at]), parentheses))
                parentheses = 0
            elif sign == "}" and stack:
                parentheses = stack.pop()[1]
            if sign in "{}" or (sign == ";" and parentheses == 0):
                begin = at + 1
                self.events.append((at, tuple(scope for scope, _ in stack)))

    def at(self, offset):
        """Returns (names of the enclosing types, name of the outermost function or variable, "" if there is none)."""
        scopes = self.events[bisect.bisect_right(self.events, offset, key=lambda event: event[0]) - 1][1]
        types, function = [], ""
        for kind, name in scopes:
            if kind in ("function", "other") and not function:
                function = name
            elif kind == "type" and not function:
                types.append(name)
        return types, function


def cpp_comments(text):
    """(line, name, comment) of each block of comments."""
    code, found = _cpp_code(text)
    scopes = _CppScopes(code)
    lines, matches = [], {}
    for match in found:
        begin = text.rfind("\n", 0, match.start()) + 1
        if text[match.end():].split("\n", 1)[0].strip():  # the name of a parameter
            continue
        line = _line(text, match.start())
        lines.append((line, match.start() - begin, match[0], not text[begin:match.start()].strip()))
        matches[line] = match
    for block in _blocks(lines):
        comment = _clean("\n".join(entry[2] for entry in block).split("\n"), r"//|/\*+|\*/")
        comment = re.sub(r"\s*\*/$", "", comment)
        if not NO_PROSE.match(comment):
            last = matches[block[-1][0]]
            types, function = scopes.at(last.start())
            declared = function or _cpp_declared(text, code, last, block[0][3])
            yield block[0][0], "::".join([*types, declared]).strip(":"), comment


def _cpp_declared(text, code, comment, is_alone):
    """The name of the declaration that a comment belongs to, "" for a comment on the file."""
    if is_alone:
        if re.match(r"\n[ \t]*\n|\n#(include|pragma)", text[comment.end():]):
            return ""
        return _cpp_name(_header_after(code, comment.end()))[1]
    begin = text.rfind("\n", 0, comment.start()) + 1
    return _cpp_name(code[begin:comment.start()].strip().rstrip(",;{").split("{")[0])[1]


# --- Python ---


def _python_scopes(tree):
    """(first line, last line, name) of each function and class, the outer ones first."""
    scopes = []

    def add(node, names):
        for child in ast.iter_child_nodes(node):
            inner = names
            if isinstance(child, (ast.FunctionDef, ast.AsyncFunctionDef, ast.ClassDef)):
                inner = [*names, child.name]
                scopes.append((child.lineno, child.end_lineno, ".".join(inner)))
            add(child, inner)

    add(tree, [])
    return scopes


def python_comments(text):
    """(line, name, comment) of each block of comments and each docstring."""
    tree = ast.parse(text)
    scopes = _python_scopes(tree)
    names = {first: name for first, _, name in scopes}
    lines = text.split("\n")
    for node in ast.walk(tree):
        if isinstance(node, (ast.Module, ast.FunctionDef, ast.AsyncFunctionDef, ast.ClassDef)):
            docstring = ast.get_docstring(node)
            if docstring:
                yield node.body[0].lineno, names.get(getattr(node, "lineno", 0), ""), docstring
    found = [(*token.start, token.string, token.line[:token.start[1]].strip() == "")
             for token in tokenize.generate_tokens(io.StringIO(text).readline) if token.type == tokenize.COMMENT]
    for block in _blocks(found):
        comment = _clean([entry[2] for entry in block], "#")
        if NO_PROSE.match(comment):
            continue
        next_line = block[-1][0] + (1 if block[0][3] else 0)
        around = [name for first, last, name in scopes if first <= block[0][0] <= last]
        assigned = re.match(r"\s*([\w.]+)\s*=[^=]", lines[next_line - 1]) if next_line <= len(lines) else None
        yield block[0][0], (names.get(next_line) or (around[-1] if around else "")
                            or (assigned[1] if assigned else "")), comment


# --- Shell and CMake ---


def _shell_comment(line, quote):
    """(column of the comment or -1, the quote that is open at the end of the line)."""
    at = 0
    while at < len(line):
        character = line[at]
        if character == "\\" and quote != "'":
            at += 1
        elif quote:
            quote = "" if character == quote else quote
        elif character in "'\"":
            quote = character
        elif character == "#" and (at == 0 or line[at - 1] in " \t;("):
            return at, quote
        at += 1
    return -1, quote


def _script_comments(text, name_of, function, end):
    lines, found, quote, heredoc = text.split("\n"), [], "", None
    names, current = {}, ""
    for number, line in enumerate(lines, 1):
        if heredoc:
            heredoc = None if line.strip() == heredoc else heredoc
            continue
        opened = None if quote else function.match(line)
        current = opened[1] if opened else current
        names[number] = current
        column, quote = _shell_comment(line, quote)
        if column >= 0:
            found.append((number, column, line[column:], not line[:column].strip()))
        started = re.search(r"<<-?\s*['\"]?(\w+)", line if column < 0 else line[:column])
        heredoc = started[1] if started and not quote and "<<<" not in line else None
        current = "" if end.match(line) else current
    for block in _blocks(found):
        comment = _clean([entry[2] for entry in block], "#")
        if not NO_PROSE.match(comment):
            following = block[-1][0] + (1 if block[0][3] else 0)
            after = name_of(lines[following - 1]) if following <= len(lines) else ""
            yield block[0][0], names.get(block[0][0]) or after, comment


def shell_comments(text):
    """(line, name, comment) of each block of comments."""
    def name_of(line):
        declared = re.match(r"\s*([\w-]+)(\(\)|=)", line)
        return declared[1] if declared else ""
    return _script_comments(text, name_of, re.compile(r"([\w-]+)\(\) [{(]"), re.compile(r"[})]|[\w-]+\(\) .*[})]$"))


def cmake_comments(text):
    """(line, name, comment) of each block of comments; the name is the next command and its first argument."""
    def name_of(line):
        command = re.match(r"\s*(\w+)\(\s*([\w${}:.]*)", line)
        return f"{command[1]}({command[2]})" if command else ""
    return _script_comments(text, name_of, re.compile(r"(?:function|macro)\((\w+)"), re.compile(r"end(function|macro)"))


COMMENTS = {"c++": cpp_comments, "python": python_comments, "shell": shell_comments, "cmake": cmake_comments}

# --- Documentation ---


def _paragraphs(text):
    """(line, text) of each paragraph, list item and table cell; blocks of code and headings are left out."""
    paragraph, begin, fenced = [], 0, False
    for number, line in enumerate([*text.split("\n"), ""], 1):
        fence = line.lstrip().startswith("```")
        item = re.match(r"\s*([-*]|\d+\.) ", line)
        is_code = fenced or fence or (line.startswith("    ") and not paragraph and not item)
        is_text = line.strip() and not is_code and not line.startswith(("#", "|"))
        if paragraph and (item or not is_text):
            yield begin, "\n".join(paragraph)
            paragraph = []
        fenced ^= fence
        if is_text:
            begin = begin if paragraph else number
            paragraph.append(re.sub(r"^\s*([-*]|\d+\.) ", "", line).strip())
        elif line.startswith("|") and not re.match(r"[|\s:-]+$", line):
            yield from ((number, cell.strip()) for cell in re.split(r"(?<!\\)\|", line))


def sentences(text):
    """(line, sentence) of a page in Markdown. Table cells of fewer than four words are left out."""
    for line, paragraph in _paragraphs(text):
        done = 0
        for sentence in re.split(r"(?<=[.!?])(?<!e\.g\.)(?<!i\.e\.)\s+(?=[A-Z`\"'(\[*])", paragraph):
            at = paragraph.index(sentence, done)
            done = at + len(sentence)
            if len(sentence.split()) >= 4:
                yield line + paragraph.count("\n", 0, at), " ".join(sentence.split())


# --- Messages ---

MESSAGE = re.compile(r"\bKRO_LOG\(|\bthrow\b(?!;)|\b(?:\w*Error|FromErrno|Throw\w*|Refuse\w*|Fail\w*|Warn\w*)\(")


def messages(text):
    """(line, function, text) of the string literals of logs and errors; "..." replaces the values between them.

    Texts of fewer than two words are left out.
    """
    code, _ = _cpp_code(text)
    scopes = _CppScopes(code)
    done = 0
    for match in MESSAGE.finditer(code):
        if match.start() < done:
            continue
        done = match.start() + len(_statement(code, match.start()))
        literals = [part["string"][1:-1] for part in CPP_TOKEN.finditer(text, match.start(), done) if part["string"]]
        message = " ... ".join(filter(None, (literal.strip() for literal in _joined(literals, text, match.start()))))
        message = re.sub(r"\s+", " ", message.replace('\\"', '"').replace("\\n", " ")).strip()
        if len(re.findall(r"[A-Za-z]{2,}", message)) > 1:
            types, function = scopes.at(match.start())
            yield _line(text, match.start()), "::".join([*types, function]).strip(":"), message


def _joined(literals, text, begin):
    """Adjacent string literals without code between them count as one literal."""
    joined, at = [], begin
    for literal in literals:
        start = text.index('"' + literal + '"', at)
        if joined and not text[at:start].strip():
            joined[-1] += literal
        else:
            joined.append(literal)
        at = start + len(literal) + 2
    return joined


def _statement(code, begin):
    """The code from a call or a throw to its end; "" when it is the definition of a function."""
    depth = 0
    for end in range(begin, len(code)):
        if depth == 0 and code[end] == "{" and re.search(r"(\)|const|noexcept)\s*$", code[begin:end]):
            return ""
        depth += {"(": 1, ")": -1, "{": 1, "}": -1}.get(code[end], 0)
        if depth < 0 or (depth == 0 and code[end] == ";"):
            return code[begin:end]
    return code[begin:]

"""The kinds of changes that tools/mutate.py makes in a source, and the places in a text where each can be made.

A kind is a name, a pattern and a replacement.  The pattern is matched against the code with its comments and literals
blanked.  The replacement is a text, or a function of the match's groups as the source has them.  In a pattern with a
group named "it" only that group is replaced.
"""

import re
from collections import namedtuple

Mutation = namedtuple("Mutation", "kind start end replacement")

# ---- C++

TOKEN = r"[*&!]?\w+(?:(?:\.|->|::)\w+)*(?:\(\))?"  # an argument that is a name, a number, or a call without arguments
NO_CALL = r"(?!(?:return|throw|delete|using|else|goto|case|if|for|while|switch|do)\b)"
STATEMENT = rf"{NO_CALL}[*(]*[a-zA-Z_][\w.:>\[\]*()-]*(?:\([^;{{}}]*\)| (?:[-+|&^*/]|<<|>>)?= [^;{{}}]*|\+\+|--);"
BEGIN = r"(?:^ +|(?<=\{ ))"  # of a line, or of a block on one line
# A guard: an object that no later line uses, so that only its constructor and its destructor matter.
OBJECT = r"^ +(?P<it>(?!return\b|default\b|delete\b|throw\b|using\b|goto\b|typedef\b|extern\b)(?:const )?[A-Z]?[\w:]+(?:<[^;()]*>)? (?P<name>\w+)(?:[({][^;]*[)}])?;)"

# Calls and other names that are easily confused.
CALLS = ["Warning Log", "stat lstat", "chown lchown", "getuid geteuid", "getgid getegid", "strcmp strcasecmp",
         "strncmp strncasecmp", "strchr strrchr", "find rfind", "begin end", "front back", "min max", "tolower toupper",
         "isdigit isxdigit", "exit _exit", "unlink rmdir", "push_back push_front", "setuid seteuid", "WEXITSTATUS WTERMSIG"]
NAMES = ["pw_uid pw_gid", "st_uid st_gid", "first second", "LOCK_EX LOCK_SH", "SIG_IGN SIG_DFL", "stdout stderr",
         "STDOUT_FILENO STDERR_FILENO", "O_RDONLY O_RDWR", "EINTR EAGAIN", "ENOENT ENOTDIR", "rlim_cur rlim_max",
         "SIG_BLOCK SIG_UNBLOCK", "INT32_MAX INT64_MAX"]
OTHER = {one: two for pair in CALLS + NAMES for one, two in (pair.split(), pair.split()[::-1])}
NARROWER = {
    "size_t": "uint32_t", "ssize_t": "int", "off_t": "int", "uint64_t": "uint32_t", "int64_t": "int32_t", "long": "int",
    "uintptr_t": "uint32_t", "uint32_t": "uint16_t", "int32_t": "int16_t", "int": "short", "unsigned": "unsigned short",
    "mode_t": "uint8_t", "uid_t": "uint16_t", "gid_t": "uint16_t", "dev_t": "uint32_t", "char32_t": "char16_t",
    "uint16_t": "uint8_t", "double": "float", "unsigned char": "signed char",
}
TYPES = "|".join(sorted(NARROWER, key=len, reverse=True))


def any_of(pairs):
    return "|".join(name for pair in pairs for name in pair.split())


def both_ways(kind, one, other):
    return [(kind, re.escape(one), other), (kind, re.escape(other), one)]


CPP = [
    *both_ways("comparison", " == ", " != "), *both_ways("comparison", " < ", " <= "), *both_ways("comparison", " > ", " >= "),
    ("comparison", " < ", " >= "), ("comparison", " > ", " <= "), ("comparison", " <= ", " > "), ("comparison", " >= ", " < "),
    *both_ways("condition", " && ", " || "), *both_ways("condition", "true", "false"), ("condition", r"\(!(?=\w)", "("),
    *both_ways("arithmetic", " + ", " - "), *both_ways("arithmetic", " & ", " | "), *both_ways("arithmetic", " << ", " >> "),
    *both_ways("arithmetic", " += ", " -= "), *both_ways("arithmetic", "++", "--"), ("arithmetic", r" \* (?=\w)", " + "),
    ("arithmetic", " % ", " / "), ("arithmetic", " / ", " * "),
    ("number", r"(?<![\w.\"'])\d+(?![\w.\"'])", lambda found: str(int(found[0]) + 1)),
    *both_ways("jump", "continue;", "break;"),
    ("statement left out", rf"{BEGIN}(?P<it>{STATEMENT})", ";"),
    ("early return left out", r"\bif \([^;{}]*\) \{ (?P<it>return\b[^;{}]*;)(?= \})", ";"),
    ("early return left out", r"^ {8,}(?P<it>return\b[^;{}]*;)(?=[\s\0]*\})", ";"),
    ("statements exchanged", rf"^( +)({STATEMENT})[ \0]*\n\1({STATEMENT})(?=[ \0]*$)",
     lambda found: f"{found[1]}{found[3]}\n{found[1]}{found[2]}"),
    ("argument dropped", rf"(?:(?<=[\w>]\()|(?<=, ))(?!nullptr\b|0\b|false\b){TOKEN}(?=[,)])", "{}"),
    ("arguments exchanged", rf"(?:(?<=[\w>]\()|(?<=, ))({TOKEN}), ({TOKEN})(?=[,)])", lambda found: f"{found[2]}, {found[1]}"),
    ("similar name", rf"(?<!\w)(?:{any_of(CALLS)})(?=[(,)])|\b(?:{any_of(NAMES)})\b", lambda found: OTHER[found[0]]),
    ("flag taken out", r" \| [A-Z_][A-Z_0-9]+\b", ""), ("flag taken out", r"\b[A-Z_][A-Z_0-9]+ \| ", ""),
    ("narrowed", rf"(?<=static_cast<)(?:{TYPES})(?=>\()", lambda found: NARROWER[found[0]]),
    ("narrowed", rf"^ +(?:const )?(?P<it>{TYPES})(?= \w+ = )", lambda found: NARROWER[found[1]]),
    ("guard removed", OBJECT, ";"), ("guard ended at once", OBJECT, lambda found: f"{{ {found[1]} }}"),
    ("memory order weakened", r"\bmemory_order_(?:acquire|release|acq_rel|seq_cst)\b", "memory_order_relaxed"),
    ("memory order weakened", r"\b__ATOMIC_(?:ACQUIRE|RELEASE|ACQ_REL|SEQ_CST)\b", "__ATOMIC_RELAXED"),
    ("atomic operation weakened", rf"([\w.\[\]]+(?:\.|->))compare_exchange_(?:strong|weak)\(\s*[\w>.-]+,\s*({TOKEN})[^()]*\)",
     lambda found: f"({found[1]}store({found[2]}), true)"),
    ("atomic operation weakened", r"([\w.\[\]]+(?:\.|->))fetch_add\((\w+)\)", lambda found: f"{found[1]}store({found[1]}load() + {found[2]})"),
    ("atomic operation weakened", r"([\w.\[\]]+(?:\.|->))fetch_sub\((\w+)\)", lambda found: f"{found[1]}store({found[1]}load() - {found[2]})"),
]

# ---- Shell scripts

NO_COMMAND = r"(?!(?:if|then|else|elif|fi|for|while|until|do|done|case|esac|in|return|exit)\b|\w+=|\S*\))"
WORDS = r"(?:\$\{[^}\n]*\}|[^\n\\|&;{}\0])*"  # the rest of a simple command
SHELL = [
    ("command left out", rf"(?<![\\|&]\n)^ *(?P<it>{NO_COMMAND}[a-zA-Z_./\"$]{WORDS})$", ":"),
    ("command left out", rf"\b(?:then|else|do) (?P<it>[a-zA-Z_./\"$]{WORDS})(?=;)", ":"),
    ("assignment left out", rf"^ *(?P<it>\w+={WORDS})$", ":"),
    *both_ways("condition", " && ", " || "), ("condition", r"(?<![\w\[])! (?=\w|\[)", ""), ("condition", r"\bif (?=\w|\[)", "if ! "),
    ("redirection left out", r" \d?(?:>>?|<)(?:&\d|/dev/null|\"?\$[\w{}/.]+\"?)", ""), ("redirection", "2>/dev/null", ">/dev/null"),
    ("redirection", r">&2", ">&1"), ("redirection", r"(?<= )>(?=\"?\$)", ">>"),
    *both_ways("comparison", " -eq ", " -ne "), *both_ways("comparison", " -lt ", " -le "), *both_ways("comparison", " -gt ", " -ge "),
    *both_ways("comparison", "[ -n ", "[ -z "), ("comparison", r"(?<= )= (?=\S)", "!= "), ("comparison", " != ", " = "),
    ("comparison", r"(?<=\[ )-[dfL] ", "-e "), ("comparison", r"(?<=\[ )-e ", "-d "),
    ("number", r"\b(?:exit|return) (?P<it>\d+)\b", lambda found: str(int(found[1] == "0"))),
    ("number", r"(?<=[ =])\d+(?=[ \n;)])", lambda found: str(int(found[0]) + 1)),
    ("option left out", r"(?<=[a-z])(?<!\bif)(?<!\bset) -[a-zA-Z]+(?= )", ""),
]


def blank(text):
    return re.sub(r"[^\n]", "\0", text)


def cpp_code(text):
    """Returns the text with comments, literals, directives, static assertions and template heads blanked."""
    text = re.sub(r"//[^\n]*|/\*.*?\*/|\"(?:\\.|[^\"\\\n])*\"|'(?:\\.|[^'\\\n])+'", lambda found: blank(found[0]), text, flags=re.S)
    return re.sub(r"^[ \t]*#(?:[^\n]*\\\n)*[^\n]*|^.*static_assert.*$|^template.*$", lambda found: blank(found[0]), text, flags=re.M)


def shell_code(text):
    """Returns the text with comments, single-quoted literals and here-documents blanked; double quotes contain code."""
    text = re.sub(r"<<-?'?(\w+)'?[^\n]*\n.*?^\s*\1$", lambda found: blank(found[0]), text, flags=re.S | re.M)
    literal = r"\"(?:\\.|[^\"\\])*\"|(?:^|(?<=\s))#[^\n]*|'[^']*'"
    return re.sub(literal, lambda found: found[0] if found[0].startswith('"') else blank(found[0]), text, flags=re.M)


def begins_a_statement(code, start):
    """Returns whether a statement begins there, and not the next line of a longer expression."""
    return code[:start].rstrip(" \n\0").endswith((";", "{", "}", ":", ")", "else"))


def is_in_a_function(code, start):
    """Returns whether the line is in a block that is neither a class nor a namespace."""
    indent = len(code[:start]) - len(code[:start].rstrip(" "))
    for line in reversed(code[:start].splitlines()[:-1]):
        words = line.replace("\0", " ").rstrip()
        if words and len(words) - len(words.lstrip()) < indent:
            return words.endswith("{") and not re.match(r"\s*(?:class|struct|union|enum|namespace|extern)\b.*\{$", words)
    return False


def is_named_later(code, found):
    return re.search(rf"\b{found['name']}\b", code[found.end():code.find("\n}", found.end())]) is not None


def may_order_matter(first, second):
    """Returns whether the order of the statements may matter; that of two assignments does if one reads what the
    other writes."""
    if " = " not in first or " = " not in second:
        return True
    targets = [re.findall(r"\w+", statement.split(" = ")[0])[-1] for statement in (first, second)]
    return re.search(rf"\b{targets[0]}\b", second) is not None or re.search(rf"\b{targets[1]}\b", first) is not None


def balance(text):
    return [text.count(opening) - text.count(closing) for opening, closing in ("()", "{}", "[]")]


def is_place(kind, code, found, start, end):
    if kind.startswith("guard"):
        return is_in_a_function(code, start) and not is_named_later(code, found)
    if kind == "statements exchanged" and not may_order_matter(found[2], found[3]):
        return False
    if kind.startswith("statement"):
        at = found.start() if kind.endswith("exchanged") else start
        return begins_a_statement(code, at) and balance(code[start:end]) == [0, 0, 0]
    return True


def mutations(name, text):
    """Yields every change that can be made in the text of the file of that name."""
    is_script = name.endswith(".sh")
    code = shell_code(text) if is_script else cpp_code(text)
    made = set()
    for kind, pattern, replacement in SHELL if is_script else CPP:
        for found in re.finditer(pattern, code, re.M):
            start, end = found.span("it" if "it" in found.groupdict() else 0)
            pieces = [text[slice(*found.span(group))] for group in range(found.re.groups + 1)]
            new = replacement if isinstance(replacement, str) else replacement(pieces)
            if new != text[start:end] and (start, end, new) not in made and is_place(kind, code, found, start, end):
                made.add((start, end, new))
                yield Mutation(kind, start, end, new)

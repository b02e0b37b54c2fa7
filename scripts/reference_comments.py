#!/usr/bin/env python3
"""Shows a header to doxygen with its plain comments marked as documentation; prints it, line for line.

    reference_comments.py HEADER

What is documentation follows from where a comment stands:
  - the block at the top documents the file;
  - a block right above a declaration documents it and those that follow without a blank line and a comment of their own;
  - a comment behind a field or an enumerator documents that;
  - a block with a blank line behind it documents nothing;
  - what a class has of copies and assignments without a comment does the usual and is left out; one with a comment
    needs no words for the other object and for its result.
Inside a block, lines of the form `argument  meaning` describe the arguments of the declaration that are named so, and a
line that begins with "Returns" its result.
"""
import re
import sys

BLOCK = re.compile(r"\s*//( (?P<text>.*))?$")
BEHIND = re.compile(r"(?P<code>.*?\S\s+)// (?P<text>.*)$")
ARGUMENT = re.compile(r"(?P<names>\w+(, \w+)*) {2,}(?P<meaning>\S.*)$")
SCOPE = re.compile(r"(template <.*> *)?(class|struct|enum|union|namespace|extern \"C\")\b[^();]*\{\s*(//.*)?$")
NO_DECLARATION = re.compile(r"\s*(#(?!define)|}|(public|protected|private):|extern \"C\" {|$)")
USUAL = re.compile(r"\s*(virtual |constexpr )?((\w+)\((const )?\3 ?&|\w+&\s+operator=\()[^{]*;", re.DOTALL)
# A line break for doxygen that doesn't count as one, so that its warnings name the right lines.
BREAK = " \\ilinebr "


def escaped(text):
    """Prose in which nothing but `code` has a meaning."""
    parts = re.split(r"(`[^`]*`)", text)
    return "".join(part if part.startswith("`") else re.sub(r"([\\<>#@%&*\"])", r"\\\1", part) for part in parts)


def usual_words(declaration):
    if re.search(r"\(const \w+& other\)", declaration):
        yield "\\param other what is copied"
    if "operator=(" in declaration:
        yield "\\return this object"


def marked_up(block, declaration):
    """The lines of a block, as many as came in, in doxygen's language."""
    *lines, last = lines_of(block, declaration)
    return [*lines, BREAK.join([last, *usual_words(declaration)])]


def lines_of(block, declaration):
    in_list = False
    for text in block:
        argument = ARGUMENT.match(text)
        if argument and all(re.search(rf"\b{name}\b", declaration) for name in argument["names"].split(", ")):
            in_list = True
            yield f"\\param {argument['names'].replace(', ', ',')} {escaped(argument['meaning'])}"
        elif in_list and text.startswith("  "):
            yield escaped(text)
        elif text.startswith("    "):
            yield text
        else:
            # Prose behind a list is a paragraph of its own.
            lead = BREAK * 2 if in_list else ""
            in_list = False
            result = re.match(r"Returns (.*)", text)
            yield lead + (f"\\return {escaped(result[1])}" if result else escaped(text))


class Header:
    def __init__(self, lines):
        self.lines = lines
        self.block = []       # the comment above, until a blank line
        self.is_above = False  # its lines are not yet written

    def declaration_from(self, index):
        """A declaration as one text, and the index behind it. A scope ends behind its brace: what is in it is declared."""
        text, depth = "", 0
        if self.lines[index].startswith("#define"):
            return self.lines[index], index + 1
        for end in range(index, len(self.lines)):
            code = re.sub(r"//.*|\"(\\.|[^\"])*\"", "", self.lines[end])
            text += self.lines[end] + "\n"
            if SCOPE.match(text.strip().replace("\n", " ")):
                return text, end + 1
            depth += code.count("{") - code.count("}")
            if depth <= 0 and re.search(r"[;},]\s*$", code) and code.count("(") <= code.count(")") + text.count(")"):
                if not code.rstrip().endswith(",") or "(" not in text:
                    return text, end + 1
        return text, len(self.lines)

    def documented(self, declaration):
        """The lines of a declaration, with what is known of it in front of the first."""
        first, *rest = declaration.splitlines()
        if not self.block and USUAL.match(declaration):
            return [""] * (1 + len(rest))
        behind = BEHIND.match(first)
        if behind and not SCOPE.match(first.strip()):
            first = f"{behind['code']}///< {escaped(behind['text'])}"
        elif self.block and not self.is_above:
            first = f"/** {BREAK.join(marked_up(self.block, declaration))} */ {first}"
        if SCOPE.match(declaration.strip().replace("\n", " ")):
            self.block = []
        return [first, *rest]

    def shown(self):
        index, behind_column = 0, None
        while index < len(self.lines):
            line = self.lines[index]
            if comment := BLOCK.match(line):
                if behind_column == line.index("//"):
                    yield f"{line[:behind_column]}///< {escaped(comment['text'] or '')}"
                    index += 1
                    continue
                end = index
                while end < len(self.lines) and BLOCK.match(self.lines[end]):
                    end += 1
                self.block = [BLOCK.match(text)["text"] or "" for text in self.lines[index:end]]
                follows = self.lines[end] if end < len(self.lines) else ""
                if index == 0 and follows.startswith("#pragma once"):
                    yield from (f"/// {text}" for text in marked_up(self.block, ""))
                    yield "/// \\file"
                    self.block = []
                    end += 1
                elif NO_DECLARATION.match(follows):
                    yield from self.lines[index:end]
                    self.block = []
                else:
                    declaration, _ = self.declaration_from(end)
                    yield from (f"/// {text}" for text in marked_up(self.block, declaration))
                    self.is_above = True
                index = end
                continue
            if NO_DECLARATION.match(line):
                self.block = []
                yield line
                index += 1
                continue
            declaration, index = self.declaration_from(index)
            lines = self.documented(declaration)
            self.is_above = False
            behind = BEHIND.match(self.lines[index - 1])
            behind_column = self.lines[index - 1].index("//") if behind else None
            yield from lines


if __name__ == "__main__":
    with open(sys.argv[1], encoding="utf-8") as header:
        print("\n".join(Header(header.read().splitlines()).shown()))

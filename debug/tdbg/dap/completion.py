"""The request `completions`: names of the frame, attributes, keywords.

Attributes are found without running code of the program; so there are none for what only a call
would tell.  Columns count UTF-16 code units, as the protocol has it.
"""
from __future__ import absolute_import, division, print_function

import keyword
import re

from tdbg import compat, sublanguages
from tdbg.dap import holders, peek, statics, variables
from tdbg.dap.requests import get, get_optional, kStopped, tRequest

kMost = 2000

_keywords = tuple(keyword.kwlist)
_word_at_end = re.compile(r"\w*\Z", re.UNICODE)
_openers, _closers = u"([{", u")]}"
_quotes = u"'\""
_order = {0: u"0", 1: u"1", 2: u"2"}


def completions(session, arguments):
    text = get(arguments, "text", str)
    column = get(arguments, "column", int)
    line = get_optional(arguments, "line", int, None)
    client = session.client or {}
    first_column = 1 if client.get("columnsStartAt1", True) else 0
    first_line = 1 if client.get("linesStartAt1", True) else 0
    ref = variables.find_frame(session, get_optional(arguments, "frameId", int))
    lines = re.split(u"\r\n|\r|\n", text)
    index = 0 if line is None else min(max(line - first_line, 0), len(lines) - 1)
    before = take_units(lines[index], column - first_column)
    word = _word_at_end.search(before).group()
    found = find(before, variables.frame_of(session, ref), variables.extra_names(session, ref))
    start = count_units(before[:len(before) - len(word)]) + first_column
    length = count_units(word)
    for item in found:
        item["start"], item["length"] = start, length
    return {"targets": found}


def take_units(text, count):
    """The first so many UTF-16 code units."""
    if count <= 0:
        return text[:0]
    units = 0
    for index, character in enumerate(text):
        units += 2 if ord(character) > 0xFFFF else 1
        if units > count:
            return text[:index]
    return text


def count_units(text):
    return sum(2 if ord(character) > 0xFFFF else 1 for character in text)


def find(before, frame, extra=None):
    """[CompletionItem without place] for the text before the cursor."""
    if is_in_text(before):
        return []
    word = _word_at_end.search(before).group()
    head = before[:len(before) - len(word)]
    if head.rstrip().endswith(u"."):
        return _attributes(head.rstrip()[:-1], word, frame, extra)
    if word[:1].isdigit():
        return []
    return _names(word, frame, extra)


def is_in_text(before):
    """Whether the cursor is in a string or a comment of this line."""
    quote, index = None, 0
    while index < len(before):
        character = before[index]
        if quote is not None:
            if character == u"\\":
                index += 1
            elif before.startswith(quote, index):
                index += len(quote) - 1
                quote = None
        elif character in _quotes:
            quote = character * 3 if before.startswith(character * 3, index) else character
            index += len(quote) - 1
        elif character == u"#":
            return True
        index += 1
    return quote is not None


def _names(word, frame, extra):
    found = {}
    for name in _keywords:
        found[name] = _item(name, u"keyword", 2)
    for names, rank in ((compat.builtins.__dict__, 1), (frame.f_globals, 0),
                        (holders.variables_of(frame), 0), (extra or {}, 0)):
        for name in list(names):
            if isinstance(name, compat.string_types) and name.startswith(word):
                found[name] = _item(name, _type_of(names[name], u"variable"), rank)
    return _chosen(found, word)


def _attributes(source, word, frame, extra):
    expression = expression_at_end(source)
    if not expression or sublanguages.is_view(frame):
        return []
    try:
        value = peek.peek(expression, frame, extra)
    except Exception:
        return []
    found = {}
    for name in statics.attribute_names(value):
        if name.startswith(word):
            found[name] = _item(name, _type_of_attribute(value, name), 0)
    return _chosen(found, word)


def _chosen(found, word):
    names = [name for name in found if name.startswith(word)]
    names.sort(key=lambda name: (name.startswith("__"), name.startswith("_"), name))
    return [found[name] for name in names[:kMost]]


def _item(name, kind, rank):
    label = compat.to_text(name)
    hidden = u"2" if label.startswith(u"__") else u"1" if label.startswith(u"_") else u"0"
    return {"label": label, "type": kind, "sortText": _order[rank] + hidden + label}


def _type_of(value, otherwise):
    kind = type(value)
    if kind is statics.module_type:
        return u"module"
    if kind is statics.method_type:
        return u"method"
    if kind is statics.function_type or kind is statics.builtin_type:
        return u"function"
    if kind is statics.old_class_type or statics.is_kind_of(kind, type):
        return u"class"
    return otherwise


def _type_of_attribute(value, name):
    try:
        found = statics.find_attribute(value, name)
    except LookupError:
        return u"property"
    except Exception:
        return u"field"
    is_module = type(value) is statics.module_type
    kind = _type_of(found, u"variable" if is_module else u"field")
    return u"method" if kind == u"function" and not is_module else kind


def expression_at_end(text):
    """The longest operand at the end of the text: `a.b[0]` of `x + a.b[0]`; "" for none."""
    index = len(text.rstrip())
    end = index
    while index > 0:
        character = text[index - 1]
        if character in _closers:
            index = _start_of_bracket(text, index)
            if index is None:
                return u""
            if not (index and (text[index - 1].isalnum() or text[index - 1] in u"_)]}" + _quotes)):
                break
        elif character in _quotes:
            index = _start_of_text(text, index)
            if index is None:
                return u""
            break
        elif character.isalnum() or character == u"_":
            index = index - len(_word_at_end.search(text[:index]).group())
            before = text[:index].rstrip()
            if not before.endswith(u"."):
                break
            index = len(before) - 1
            index = len(text[:index].rstrip())
        else:
            break
    return text[index:end].strip()


def _start_of_bracket(text, index):
    depth = 0
    while index > 0:
        character = text[index - 1]
        if character in _quotes:
            index = _start_of_text(text, index)
            if index is None:
                return None
            continue
        if character in _closers:
            depth += 1
        elif character in _openers:
            depth -= 1
            if depth == 0:
                return index - 1
        index -= 1
    return None


def _start_of_text(text, index):
    quote = text[index - 1]
    place = text.rfind(quote, 0, index - 1)
    while place > 0 and text[place - 1] == u"\\":
        place = text.rfind(quote, 0, place)
    return place if place >= 0 else None


kRequests = {"completions": tRequest(completions, kStopped)}

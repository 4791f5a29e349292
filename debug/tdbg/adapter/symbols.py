"""Where functions are in another process: the dynamic symbols of the files that it has mapped.

A debugger could tell, but reads all it knows of a program first, and finds nothing where the
program was started through a dynamic loader by hand.
"""
import os
import re
import struct

kMagic = b"\x7fELF"
kClasses = {1: 32, 2: 64}
kLoad, kDynamicSymbols = 1, 11  # PT_LOAD, SHT_DYNSYM
kPage = 4096
# (format, and in it the places of what is wanted) by word size
kHeader = {32: ("<16sHHIIIIIHHHHHH", 52), 64: ("<16sHHIQQQIHHHHHH", 64)}
kProgramHeader = {32: ("<8I", 0, 1, 2), 64: ("<IIQQQQQQ", 0, 2, 3)}      # type, offset, address
# type 1, offset 4, size 5, link 6
kSection = {32: "<10I", 64: "<IIQQQQIIQQ"}
kSymbol = {32: ("<IIIBBH", 0, 1, 5), 64: ("<IBBHQQ", 0, 4, 3)}           # name, value, section


class tMapped:
    """A file in the memory of a process.

    start, offset  of its first mapping
    """

    def __init__(self, path, start, offset):
        self.path, self.start, self.offset = path, start, offset


def mapped_files(pid):
    """[tMapped] in the order of addresses; empty when the process cannot be looked into."""
    found = {}
    try:
        with open("/proc/{}/maps".format(pid), encoding="utf-8",
                  errors="surrogateescape") as source:
            for line in source:
                words = line.rstrip("\n").split(None, 5)
                if len(words) == 6 and words[5].startswith("/"):
                    found.setdefault(words[5], tMapped(
                        words[5], int(words[0].partition("-")[0], 16), int(words[2], 16)))
    except (OSError, ValueError):
        pass
    return list(found.values())


def word_size(path):
    """32 or 64; None for a file that is not a program for this kind of processor."""
    try:
        with open(path, "rb") as source:
            head = source.read(5)
    except OSError:
        return None
    return kClasses.get(head[4]) if len(head) == 5 and head.startswith(kMagic) else None


def find(pid, names):
    """{name: address in the process} of those that are there.

    The interpreter's own files come first, for others may have functions of the same names.
    """
    found = {}
    for mapped in sorted(mapped_files(pid), key=_rank):
        if len(found) == len(names):
            break
        try:
            with open(_readable(pid, mapped.path), "rb") as source:
                symbols = _symbols_in(source.read(), mapped, set(names) - set(found))
        except (OSError, struct.error, IndexError):
            continue  # not a program, or no longer there
        found.update(symbols)
    return found


def _rank(mapped):
    name = os.path.basename(mapped.path)
    return 0 if re.match(r"(lib)?python", name) else 1 if re.match(r"libc[.-]|ld-musl", name) else 2


def _readable(pid, path):
    """As the process sees it, which may have another root."""
    return "/proc/{}/root{}".format(pid, path)


def _symbols_in(data, mapped, wanted):
    if not data.startswith(kMagic):
        return {}
    size = kClasses[data[4]]
    header = struct.unpack_from(kHeader[size][0], data)
    program_at, sections_at = header[5], header[6]
    program_count, section_size, section_count = header[10], header[11], header[12]
    bias = _bias(data, size, program_at, program_count, mapped)
    sections = [struct.unpack_from(kSection[size], data, sections_at + number * section_size)
                for number in range(section_count)]
    found = {}
    for section in sections:
        if section[1] == kDynamicSymbols:
            names = sections[section[6]]
            text = data[names[4]:names[4] + names[5]]
            _collect(data, size, section, text, wanted, bias, found)
    return found


def _bias(data, size, at, count, mapped):
    """What is added to the addresses in the file."""
    layout, kind, offset, address = kProgramHeader[size]
    for number in range(count):
        entry = struct.unpack_from(layout, data, at + number * struct.calcsize(layout))
        if entry[kind] == kLoad and entry[offset] // kPage * kPage == mapped.offset:
            return mapped.start - entry[address] // kPage * kPage
    raise IndexError("not mapped as a program")


def _collect(data, size, section, text, wanted, bias, found):
    layout, name, value, where = kSymbol[size]
    # A name may be the end of a longer one.
    offsets = {match.start(): word for word in wanted
               for match in re.finditer(re.escape(word.encode()) + b"\0", text)}
    for symbol in struct.iter_unpack(layout, data[section[4]:section[4] + section[5]]):
        if symbol[name] in offsets and symbol[where] != 0:
            found.setdefault(offsets[symbol[name]], symbol[value] + bias)

"""Files with environment variables (envFile)."""
import re

kLine = re.compile(r"\s*(?:export\s+)?([A-Za-z_]\w*)\s*=\s*(.*?)\s*$")
kReference = re.compile(r"\$\{([A-Za-z_]\w*)\}")
kEscapes = {"n": "\n", "r": "\r", "t": "\t", '"': '"', "\\": "\\", "$": "$"}


def read_file(path, known):
    """{name: text} of the file; ${NAME} stands for what is known or was set before."""
    with open(path, encoding="utf-8-sig") as source:
        return parse(source.read(), known)


def parse(text, known):
    found = {}
    for line in text.splitlines():
        match = kLine.match(line)
        if match is None or line.lstrip().startswith("#"):
            continue
        name, value = match.groups()
        values = dict(known, **found)
        if value[:1] == "'" and value[-1:] == "'" and len(value) > 1:
            found[name] = value[1:-1]
        elif value[:1] == '"':
            end = re.match(r'"((?:[^"\\]|\\.)*)"', value)
            inner = end.group(1) if end else value[1:]
            inner = re.sub(r"\\(.)",
                           lambda found: kEscapes.get(found.group(1), found.group(0)), inner)
            found[name] = _expand(inner, values)
        else:
            found[name] = _expand(re.sub(r"\s+#.*", "", value), values)
    return found


def _expand(text, values):
    return kReference.sub(lambda match: values.get(match.group(1)) or "", text)

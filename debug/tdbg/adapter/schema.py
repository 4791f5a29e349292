"""Check requests against the protocol's JSON schema (protocol.json; see tools/dap-schema)."""
import json
import os

kFile = os.path.join(os.path.dirname(os.path.abspath(__file__)), "protocol.json")
kOwn = "tdbg/"  # begin of the names of our own requests
_kinds = {
    "string": lambda value: isinstance(value, str),
    "boolean": lambda value: isinstance(value, bool),
    "integer": lambda value: isinstance(value, int) and not isinstance(value, bool),
    "number": lambda value: isinstance(value, (int, float)) and not isinstance(value, bool),
    "array": lambda value: isinstance(value, list),
    "object": lambda value: isinstance(value, dict),
    "null": lambda value: value is None,
}
_names = {"string": "a text", "boolean": "true or false", "integer": "a whole number",
          "number": "a number", "array": "a list", "object": "an object", "null": "null"}


class tWrong(Exception):
    """What is wrong with a message, in one line."""


class tSchema:
    """check() of the adapter's requests."""

    def __init__(self):
        with open(kFile, encoding="utf-8") as source:
            self._definitions = json.load(source)["definitions"]
        # command -> (schema of the arguments or None, whether they are needed)
        self._arguments = {}
        for name, definition in self._definitions.items():
            if name.endswith("Request") and name != "Request":
                own = definition["allOf"][1]
                command = own["properties"]["command"]["enum"][0]
                self._arguments[command] = (
                    own["properties"].get("arguments"), "arguments" in own.get("required", ()))

    def knows(self, command):
        return command in self._arguments or command.startswith(kOwn)

    def check(self, request):
        """tWrong unless the request is one of the protocol.

        Members that are null where null means nothing are taken out, and whole numbers that are
        written as fractions become whole: some clients know neither.
        """
        if request.get("type") != "request":
            raise tWrong(
                "the type of the message is {!r}, not 'request'".format(request.get("type")))
        if not isinstance(request.get("command"), str):
            raise tWrong("`command` must be a text")
        if request.get("arguments") is None:
            request.pop("arguments", None)
        arguments = request.get("arguments", {})
        if not isinstance(arguments, dict):
            raise tWrong("`arguments` must be an object")
        schema, needed = self._arguments.get(request["command"], (None, False))
        if schema is not None and (needed or "arguments" in request):
            self._check(arguments, schema, "")

    def _check(self, value, schema, place):
        """The value as it is to be used."""
        if "$ref" in schema:
            schema = self._definitions[schema["$ref"].rpartition("/")[2]]
        for part in schema.get("allOf", ()):
            value = self._check(value, part, place)
        kinds = schema.get("type")
        if kinds is None:
            return value
        kinds = kinds if isinstance(kinds, list) else [kinds]
        if "integer" in kinds and isinstance(value, float) and value.is_integer():
            value = int(value)
        if not any(_kinds[kind](value) for kind in kinds):
            raise tWrong("`{}` must be {}".format(
                place or "arguments", " or ".join(_names[kind] for kind in kinds)))
        if "enum" in schema and value not in schema["enum"]:
            raise tWrong("`{}` must be one of {}".format(place, ", ".join(schema["enum"])))
        if isinstance(value, dict):
            self._check_members(value, schema, place)
        elif isinstance(value, list) and "items" in schema:
            value[:] = [self._check(item, schema["items"], "{}[{}]".format(place, index))
                        for index, item in enumerate(value)]
        return value

    def _check_members(self, value, schema, place):
        members = schema.get("properties", {})
        for name, member in members.items():
            if name in value and value[name] is None and not self._takes_null(member):
                del value[name]
        for name in schema.get("required", ()):
            if name not in value:
                raise tWrong("`{}` is missing".format(_join(place, name)))
        for name in value:
            member = members.get(name, schema.get("additionalProperties"))
            if member:
                value[name] = self._check(value[name], member, _join(place, name))

    def _takes_null(self, schema):
        kinds = schema.get("type", ())
        return "null" in kinds if isinstance(kinds, list) else schema == {}


def _join(place, name):
    return "{}.{}".format(place, name) if place else name

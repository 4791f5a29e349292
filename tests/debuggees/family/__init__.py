"""A package that imports from itself."""
kName = "family"

from . import sibling  # noqa: E402

kSibling = sibling.kMe

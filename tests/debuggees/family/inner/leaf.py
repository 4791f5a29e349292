from ..sibling import greet

kLeaf = greet("leaf")

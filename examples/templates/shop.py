"""Renders a list of things to buy; try it with `./tdbg examples/templates/shop.py`.

    (Tdb) break page.tmpl:4
    (Tdb) continue
    (Tdb) p thing
    (Tdb) step
"""
from __future__ import absolute_import, division, print_function

import os

import template

THINGS = [("bread", 3, 1.5), ("milk", 2, 0.9), ("cheese", 0, 4.2)]


def total(count, price):
    cost = count * price
    return cost


def main():
    folder = os.path.dirname(os.path.abspath(__file__))
    page = template.Template(os.path.join(folder, "page.tmpl"))
    text = page.render(title="To buy", things=THINGS, total=total)
    print(text)


if __name__ == "__main__":
    main()

from __future__ import absolute_import

from . import kName

kMe = "sibling of " + kName


def greet(whom):
    return "{} greets {}".format(kMe, whom)

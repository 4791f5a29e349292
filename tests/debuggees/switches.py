"""Greenlets that switch to and fro."""
from __future__ import print_function

from greenlet import getcurrent, greenlet


def helper(value):
    return value + 1  #@ helper


def pings(log):
    log.append("ping 1")  #@ ping-first
    got = helper(others["pong"].switch("to pong"))  #@ ping-switch
    log.append(got)  #@ ping-last
    return "ping ends"  #@ ping-return


def pongs(value):
    kept = value  #@ pong-first
    others["main"].switch(1)  #@ pong-switch
    helper(1)  #@ pong-helper
    others["ping"].switch(5)  #@ pong-again
    return kept


others = {}


def ping_pong(stop):
    log = []
    others["main"] = getcurrent()
    others["ping"], others["pong"] = greenlet(pings), greenlet(pongs)
    stop()
    log.append(others["ping"].switch(log))  #@ main-first
    log.append(others["pong"].switch())  #@ main-second
    others["pong"].dead or others["pong"].throw()  #@ main-kill
    return log  #@ main-last


def raises():
    raise KeyError("in a greenlet")  #@ raises


def catches(stop):
    stop()
    try:
        greenlet(raises).switch()  #@ catches-switch
    except KeyError:
        return "caught"  #@ caught


def counts(upto):
    for number in range(upto):
        getcurrent().parent.switch(number)  #@ counts
    return upto


def drives(stop):
    stop()
    counter = greenlet(counts)
    total = counter.switch(3)  #@ drives-first
    while not counter.dead:
        total += counter.switch() or 0  #@ drives
    return total  #@ drives-last

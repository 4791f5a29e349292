"""Coroutines to step through; only for interpreters that have them."""


class Pause:
    def __init__(self, value):
        self.value = value

    def __await__(self):
        answer = yield self.value
        return answer


def run(coroutine):
    answer = None
    while True:
        try:
            answer = coroutine.send(answer) * 10
        except StopIteration as end:
            return end.value


async def inner(number):
    got = await Pause(number)  #@ in-await
    return got  #@ in-last


async def outer(stop):
    stop()
    first = await inner(1)  #@ out-first
    second = await inner(2)  #@ out-second
    return first + second  #@ out-last


async def produce():
    for number in range(2):  #@ produce-for
        got = await Pause(number)  #@ produce-await
        yield number + got  #@ produce-yield


async def uses(stop):
    stop()
    total = 0  #@ uses-first
    async for number in produce():  #@ uses-for
        total += number  #@ uses-body
    return total  #@ uses-last


class Room:
    async def __aenter__(self):
        await Pause(1)

    async def __aexit__(self, kind, value, traceback):
        await Pause(2)


async def visits(stop):
    stop()
    async with Room():  #@ visits-with
        inside = 1  #@ visits-inside
    return inside  #@ visits-last


def delegates(stop):
    stop()
    got = yield from parts()  #@ delegates-from
    return got  #@ delegates-last


def parts():
    yield 1  #@ part-one
    yield 2  #@ part-two
    return 3  #@ part-last


def run_outer(stop):
    return run(outer(stop))  #@ run-outer


def run_uses(stop):
    return run(uses(stop))


def run_visits(stop):
    return run(visits(stop))


def run_delegates(stop):
    seen = []
    for number in delegates(stop):
        seen.append(number)  #@ run-body
    return seen

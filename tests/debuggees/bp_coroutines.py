"""Coroutines (3.6 and later), driven by hand: no event loop decides about the order."""
import types


@types.coroutine
def pause(value):
    got = yield value
    return got  #@ awaited


class Ticker:
    def __init__(self, count):
        self.count = count

    def __aiter__(self):
        return self

    async def __anext__(self):
        if not self.count:
            raise StopAsyncIteration
        self.count -= 1
        await pause("tick")  #@ anext
        return self.count


class Context:
    async def __aenter__(self):
        await pause("enter")  #@ aenter
        return self

    async def __aexit__(self, *info):
        await pause("exit")


async def simple():
    before = 1  #@ coroutine-first
    await pause(before)  #@ await
    after = 2  #@ after-await
    return before + after


async def loops():
    total = 0
    async for value in Ticker(3):  #@ async-for
        total += value  #@ async-for-body
    else:
        total += 100  #@ async-for-else
    return total


async def contexts():
    async with Context():  #@ async-with
        inside = 1  #@ async-with-body
    return inside


async def numbers():
    for i in range(3):
        await pause(i)
        yield i  #@ async-yield


async def comprehends():
    return [
        value * 2  #@ async-element
        async for value in numbers()
        if value
    ]


async def nests():
    return await simple() + await simple()


def drive(coroutine):
    try:
        while True:
            coroutine.send(None)
    except StopIteration as end:
        return end.value


def everything():
    return [drive(make()) for make in (simple, loops, contexts, comprehends, nests)]

"""Coroutines and what came with them; only for interpreters that have them."""


class Pause:
    """Something to wait for: gives its value to the loop and gets the answer."""

    def __init__(self, value):
        self.value = value

    def __await__(self):
        answer = yield self.value
        return answer


def run(coroutine):
    """The smallest event loop: each pause is answered with its value, doubled."""
    answer = None
    while True:
        try:
            answer = coroutine.send(answer) * 2
        except StopIteration as end:
            return end.value


async def add(first, second):
    total = await Pause(first)
    total += await Pause(second)
    return total


async def count(limit):
    for number in range(limit):
        await Pause(number)
        yield number


class Room:
    async def __aenter__(self):
        await Pause(1)
        return self

    async def __aexit__(self, kind, value, traceback):
        await Pause(2)
        return kind is LookupError


def delegating():
    first = yield from range(2)
    second = yield from inner()
    return first, second


def inner():
    got = yield "inner"
    return got


async def failing():
    await Pause(0)
    raise ValueError("from a coroutine")


async def main():
    print(await add(1, 2))
    async for number in count(3):
        print("number", number)
    async with Room() as room:
        print(type(room).__name__)
    async with Room():
        raise LookupError("swallowed")
    print([number async for number in count(2)])
    try:
        await failing()
    except ValueError as why:
        print("caught", why)
    return "done"


if __name__ == "__main__":
    print(list(delegating()))
    print(run(main()))

"""Work in an interpreter of its own while another one is debugged: frames come and go."""
import sys


def work(n):
    total = 0
    for i in range(n):
        try:
            raise KeyError(i)
        except KeyError:
            total += 1
    return total


for _ in range(200):
    work(500)
sys.stdout.write("beside\n")
sys.stdout.flush()

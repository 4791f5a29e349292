"""A thread beside the main one, which waits for a file: argv[1]."""
from __future__ import print_function

import os
import sys
import threading
import time

works = threading.Event()
stop = threading.Event()


def work():
    works.set()
    while not stop.is_set():
        stop.wait(0.01)


def wait_for(path):
    print("ready")
    sys.stdout.flush()
    while not os.path.exists(path):
        time.sleep(0.01)  #@ wait


worker = threading.Thread(target=work, name="worker")
worker.start()
works.wait()
try:
    wait_for(sys.argv[1])
except KeyboardInterrupt:
    print("interrupted")
    sys.exit(9)
finally:
    stop.set()
    worker.join()
print("done")
sys.exit(4)

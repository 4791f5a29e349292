"""Programs that raise and catch, for those who are to say that nothing went wrong in them."""

# WAYS: functions that catch a ValueError, which is boom()'s in all of them but the first.
kWays = '''\
class Swallow(object):
    def __enter__(self): return self
    def __exit__(self, *info): return True
class Steps(object):
    left = 3
    def __iter__(self): return self
    def __next__(self):
        self.left -= 1
        if not self.left: raise StopIteration
        return self.left
    next = __next__
def boom(): raise ValueError("x")
def same_frame():
    try: raise ValueError("x")
    except ValueError: pass
def outer_frame():
    try: boom()
    except ValueError as error: pass
def bare():
    try: boom()
    except: pass
def tuple_of():
    try: boom()
    except (KeyError, ValueError): pass
def variable(kinds=(KeyError, ValueError)):
    try: boom()
    except kinds: pass
def returns():
    try: boom()
    finally: return 1
def swallows():
    with Swallow(): boom()
def computed():
    try: boom()
    except type(ValueError()): pass
WAYS = (same_frame, outer_frame, bare, tuple_of, variable, returns, swallows, computed)
'''

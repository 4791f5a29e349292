# coding: utf-8
"""The debugger on a terminal, with a person at the keyboard: interrupts, completion, colours."""
from __future__ import absolute_import, division, print_function

import os
import stat
import sys
import unittest

from support import TestCase, has, needs
from support.terminal import PROMPT, Terminal, debug_on_terminal, debugger_argv, run_commands

kOncePerVersion = True


class OnATerminal(TestCase):
    """With a person at the keyboard, as far as the debugger can tell."""

    LOOP = """\
import sys
sys.stdout = open(1, "wb", 0) if sys.version_info[0] == 3 else sys.stdout
def spin(n):
    while n:
        n += 1
        if n % 200000 == 0:
            sys.stdout.write(b"tick\\n")
    return b'left'

sys.stdout.write(spin(1))
"""

    def setUp(self):
        self.home = self.make_dir()

    def debug(self, source, *arguments, **options):
        env = dict({"HOME": self.home, "NO_COLOR": None}, **options.pop("env", {}))
        self.path = self.make_file("prog.py", source)
        return debug_on_terminal(self, self.path, *arguments, env=env, **options)

    def test_step_to_the_end(self):
        terminal = self.debug("x = 1\nprint('hello')\n")
        self.assertEqual(terminal.start(), "> {}(1)<module>()\n-> x = 1\n".format(self.path))
        self.assertEqual(terminal.command("n"),
                         "> {}(2)<module>()\n-> print('hello')".format(self.path))
        self.assertIn("hello\n", terminal.command("n"))
        terminal.send_line("n")
        self.assertEqual(terminal.wait(), 0)

    def test_interrupt_stops_the_program(self):
        terminal = self.debug(self.LOOP)
        terminal.start()
        terminal.command("until 10")
        terminal.send_line("c")
        terminal.expect("tick")
        terminal.interrupt()
        out = terminal.expect(PROMPT)
        self.assertIn("--Interrupted--", out)
        self.assertIn("> " + self.path, out)
        terminal.command("!n = -1")
        terminal.send_line("c")
        self.assertEqual(terminal.wait(), 0)
        self.assertIn("left", terminal.rest())

    def test_interrupt_again_and_again(self):
        terminal = self.debug(self.LOOP)
        terminal.start()
        for _ in range(5):
            terminal.send_line("c")
            terminal.expect("tick")
            terminal.interrupt()
            self.assertIn("--Interrupted--", terminal.expect(PROMPT))

    BLOCKED = ("import os, sys\nr, w = os.pipe()\ndef wait(what):\n    os.write(1, b'waiting\\n')\n"
               "    return what()\ntry:\n    wait(lambda: os.read(r, 1))\n    print('on')\n"
               "except KeyboardInterrupt:\n    print('got it')\n")

    def interrupt_blocked(self, source):
        terminal = self.debug(source)
        terminal.start()
        terminal.send_line("c")
        terminal.expect("waiting\n")
        terminal.wait_until_blocked()
        terminal.interrupt()
        return terminal, terminal.expect(PROMPT)

    def test_interrupt_stops_in_a_call_that_waits(self):
        terminal, out = self.interrupt_blocked(self.BLOCKED)
        self.assertIn("--Interrupted--", out)
        self.assertIn("{}(7)<lambda>()".format(self.path), out)
        self.assertIn("{}(5)wait()".format(self.path), terminal.command("w"))
        terminal.command("!os.write(w, b'x')")
        if has("python2"):  # the call ends with an error when a signal comes
            terminal.send_line("c")
            self.assertIn("OSError", terminal.expect(PROMPT))
            return
        self.assertIn("--Return--", terminal.command("n"))
        terminal.command("tbreak 8")
        self.assertIn("{}(8)<module>()".format(self.path), terminal.command("c"))

    def test_step_out_of_a_call_that_waits(self):
        terminal, _ = self.interrupt_blocked(self.BLOCKED)
        if not has("python2"):
            terminal.command("!os.write(w, b'x')")
            self.assertIn("--Return--", terminal.command("r"))
            terminal.send_line("c")
            self.assertEqual(terminal.wait(), 0)
            self.assertIn("on\n", terminal.rest())

    def test_interrupts_again_and_again_in_a_sleep(self):
        source = ("import os, time\ndone = 0\nwhile done < 3:\n    os.write(1, b'waiting\\n')\n"
                  "    try:\n"
                  "        time.sleep(3600)\n    except KeyboardInterrupt:\n        done += 1\n")
        terminal, out = self.interrupt_blocked(source)
        for _ in range(2):
            self.assertIn("{}(6)<module>()".format(self.path), out)
            terminal.send_line("interrupt")
            terminal.expect("waiting\n")
            terminal.wait_until_blocked()
            terminal.interrupt()
            out = terminal.expect(PROMPT)
        terminal.send_line("interrupt")
        self.assertEqual(terminal.wait(), 0)

    def test_interrupt_command_reaches_a_blocked_program(self):
        terminal, _ = self.interrupt_blocked(self.BLOCKED)
        terminal.send_line("interrupt")
        self.assertEqual(terminal.wait(), 0)
        self.assertIn("got it", terminal.rest())

    def test_interrupt_command_at_a_line(self):
        terminal = self.debug("try:\n    x = 1\n    y = 2\nexcept KeyboardInterrupt:\n"
                              "    print('got it')\n")
        terminal.start()
        terminal.command("n")
        terminal.send_line("interrupt")
        self.assertEqual(terminal.wait(), 0)
        self.assertIn("got it", terminal.rest())

    def test_own_handler_of_the_program_gets_the_signal(self):
        source = ("import os, signal, sys\ndef handler(number, frame):\n"
                  "    os.write(1, b'handled\\n')\n"
                  "    os._exit(4)\nsignal.signal(signal.SIGINT, handler)\n"
                  "os.write(1, b'ready\\n')\nwhile True:\n    pass\n")
        terminal = self.debug(source)
        terminal.start()
        terminal.send_line("c")
        terminal.expect("ready\n")
        terminal.interrupt()
        terminal.expect("handled")
        self.assertEqual(terminal.wait(), 4)

    def test_interrupt_at_the_prompt_drops_the_line(self):
        terminal = self.debug("x = 1\ny = 2\n")
        terminal.start()
        terminal.send("garbage")
        terminal.expect("garbage")
        for _ in range(10):  # readline itself can miss one
            terminal.interrupt()
            if terminal.comes(PROMPT, 2):
                break
        self.assertEqual(terminal.command("p 6 * 7"), "42")

    def test_interrupt_ends_an_evaluation(self):
        terminal = self.debug("def forever():\n    print('turning')\n    while True: pass\n\n"
                              "x = 1\ny = 2\n")
        terminal.start()
        terminal.command("n")
        terminal.send_line("!forever()")
        terminal.expect("turning")
        terminal.interrupt()
        self.assertIn("KeyboardInterrupt", terminal.expect(PROMPT))
        self.assertEqual(terminal.command("p x" if False else "p 1"), "1")

    @needs("module:readline")
    def test_completion(self):
        terminal = self.debug("import string\nvariable_of_mine = 3\npass\n")
        terminal.start()
        terminal.command("n")
        terminal.command("n")
        terminal.send("longl\t")
        terminal.expect("longlist")
        terminal.send("\n")
        terminal.expect(PROMPT)
        terminal.send("p variable_\t\n")
        self.assertIn("3\n", terminal.expect(PROMPT))
        terminal.send("p string.digi\t\n")
        self.assertIn("0123456789", terminal.expect(PROMPT))

    @needs("module:readline")
    def test_history_is_kept(self):
        terminal = self.debug("x = 1\ny = 2\n")
        terminal.start()
        terminal.command("p 'remember me'")
        terminal.send("\x1b[A\n")
        self.assertIn("'remember me'\n", terminal.expect(PROMPT))
        terminal.send_line("q")
        terminal.wait()
        path = os.path.join(self.home, ".tdbg_history")
        self.assertEqual(stat.S_IMODE(os.stat(path).st_mode), 0o600)
        again = self.debug("x = 1\ny = 2\n")
        again.start()
        again.send("\x1b[A\x1b[A\n")
        self.assertIn("remember me", again.expect(PROMPT))

    @needs("module:readline")
    def test_history_of_the_program_is_its_own(self):
        source = ("import readline\nreadline.add_history('mine')\nx = 1\n"
                  "print('items %d' % readline.get_current_history_length())\n"
                  "print('item ' + readline.get_history_item(1), readline.get_completer())\n")
        terminal = self.debug(source)
        terminal.start()
        for _ in range(3):
            terminal.command("n")
        terminal.send_line("c")
        terminal.wait()
        self.assertIn("items 1\n", terminal.rest())
        self.assertIn("item mine", terminal.rest().replace("('", ""))
        self.assertIn("None", terminal.rest())

    def test_program_reads_the_terminal(self):
        reader = "raw_input" if has("python2") else "input"
        source = "name = {}('name? ')\nprint('hello ' + name)\n".format(reader)
        terminal = self.debug(source)
        terminal.start()
        terminal.send_line("c")
        terminal.expect("name? ")
        terminal.send_line("world")
        self.assertEqual(terminal.wait(), 0)
        self.assertIn("hello world", terminal.rest())

    def test_colours(self):
        terminal = self.debug("x = 1\n")
        terminal.start()
        self.assertIn(b"\x1b[36m", terminal.raw)

    def test_no_colours_when_not_wanted(self):
        for env in ({"NO_COLOR": "1"}, {"TERM": "dumb"}):
            terminal = self.debug("x = 1\n", env=env)
            terminal.start()
            self.assertNotIn(b"\x1b[36m", terminal.raw)

    def test_no_colours_in_a_pipe(self):
        done = run_commands(["q"], self.make_file("prog.py", "x = 1\n"), env={"TERM": "xterm"})
        self.assertNotIn("\x1b", done.out)

    def test_output_of_the_program_may_be_redirected(self):
        folder = self.make_dir()
        path = self.make_file("prog.py", "print('to the file')\n", folder)
        out = os.path.join(folder, "out")
        argv = ["/bin/sh", "-c", 'exec "$@" > ' + out, "sh"] + debugger_argv(path)
        terminal = Terminal(argv, env={"HOME": self.home})
        self.addCleanup(terminal.close)
        terminal.start()
        terminal.send_line("c")
        self.assertEqual(terminal.wait(), 0)
        with open(out) as source:
            self.assertEqual(source.read(), "to the file\n")

    def test_stop_in_a_thread_names_it(self):
        source = ("import threading\ndef work():\n    x = 1\n    return x\n"
                  "t = threading.Thread(target=work, name='worker-7')\nt.start()\nt.join()\n"
                  "print('end')\n")
        if not has("python2") and sys.version_info >= (3, 7):
            source = source.replace("x = 1\n", "x = 1; breakpoint()\n")
            terminal = self.debug(source)
            terminal.start()
            terminal.send_line("c")
            out = terminal.expect(PROMPT)
            self.assertIn("[thread worker-7]", out)
            self.assertIn("work()", out)
            terminal.send_line("c")
            self.assertEqual(terminal.wait(), 0)


if __name__ == "__main__":
    unittest.main()

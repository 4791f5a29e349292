"""Who gets in: addresses, tokens, ports, sockets, and what strangers are told."""
from __future__ import absolute_import, division, print_function

import json
import os
import re
import socket
import stat
import subprocess
import sys
import threading

from support import dapclient
from support.case import TestCase
from support.library import library_path
from support.programs import run_program
from tdbg.dap import endpoint, wire

kOncePerVersion = True

kSeconds = 20


def connect(address):
    connected = socket.create_connection(address[:2])
    connected.settimeout(kSeconds)
    return connected


def is_closed(connected):
    """Whether the other end hangs up without a word."""
    try:
        return connected.recv(100) == b""
    except socket.error:
        return True  # reset: it had not read everything


class Addresses(TestCase):

    def assert_refused(self, text, function, *args):
        with self.assertRaises(endpoint.tRefused) as caught:
            function(*args)
        self.assertIn(text, str(caught.exception))

    def test_spellings(self):
        for text, wanted in (("5", ("127.0.0.1", 5)), (":5", ("127.0.0.1", 5)), ("h:5", ("h", 5)),
                             ("[::1]:5", ("::1", 5)), ("127.0.0.1:0", ("127.0.0.1", 0))):
            self.assertEqual(endpoint.parse_address(text), wanted)
        for text in ("", "x", "h:", "h:x", "h:-1", "h:70000", "::1:5"):
            self.assert_refused("", endpoint.parse_address, text)

    def test_empty_host_is_this_machine(self):
        listener = endpoint.listen("", 0)
        self.addCleanup(listener.close)
        self.assertEqual(listener.getsockname()[0], "127.0.0.1")

    def test_other_addresses_need_to_be_allowed(self):
        for host in ("0.0.0.0", "::", "192.0.2.1", "255.255.255.255"):
            try:
                endpoint.resolve(host, 0)
            except endpoint.tRefused:
                continue  # no such family here
            self.assert_refused("--allow-remote", endpoint.listen, host, 0)
        listener = endpoint.listen("0.0.0.0", 0, True)
        self.addCleanup(listener.close)
        self.assertEqual(listener.getsockname()[0], "0.0.0.0")

    def test_busy_port_is_refused(self):
        listener = endpoint.listen("", 0)
        self.addCleanup(listener.close)
        self.assert_refused("cannot listen", endpoint.listen, "", listener.getsockname()[1])

    def test_user_at_the_other_end(self):
        listener = endpoint.listen("", 0)
        self.addCleanup(listener.close)
        client = connect(listener.getsockname())
        self.addCleanup(client.close)
        connected = endpoint.accept(listener)
        self.addCleanup(connected.close)
        self.assertEqual(endpoint.user_of_peer(connected), os.getuid())
        self.assertEqual(endpoint.user_of_peer(client), os.getuid())
        self.assertTrue(endpoint.is_of_this_user(connected))


class Tokens(TestCase):

    def test_has_128_bits(self):
        tokens = {endpoint.make_token() for _ in range(100)}
        self.assertEqual(len(tokens), 100)
        for token in tokens:
            self.assertEqual(len(bytearray.fromhex(token)) * 8, 128)

    def test_comes_from_the_system(self):
        asked = []
        original = os.urandom
        endpoint.os.urandom = lambda count: asked.append(count) or b"\1" * count
        try:
            endpoint.make_token()
        finally:
            os.urandom = original
        self.assertEqual(asked, [16])

    def test_file_is_private(self):
        path = endpoint.write_token("abc")
        self.addCleanup(os.remove, path)
        self.assertEqual(stat.S_IMODE(os.stat(path).st_mode), 0o600)
        self.assertEqual(endpoint.read_token(path), "abc")

    def test_file_that_others_can_read_is_refused(self):
        path = self.make_file("token", "abc\n")
        for mode in (0o644, 0o640, 0o602):
            os.chmod(path, mode)
            with self.assertRaises(endpoint.tRefused):
                endpoint.read_token(path)
        os.chmod(path, 0o600)
        self.assertEqual(endpoint.read_token(path), "abc")
        for bad in (self.make_file("empty", ""), self.make_file("bytes", b"\xff\xfe"),
                    "/nowhere/token"):
            if os.path.exists(bad):
                os.chmod(bad, 0o600)
            with self.assertRaises(endpoint.tRefused):
                endpoint.read_token(bad)

    def test_comparison(self):
        self.assertTrue(endpoint.same_token(u"abc", "abc"))
        for given in (None, "", "ab", "abcd", "ABC", 3, [], u"\u00e4bc", {"a": 1}):
            self.assertFalse(endpoint.same_token("abc", given))
        compared = []
        original = endpoint._compare_digest
        endpoint._compare_digest = lambda *pair: compared.append(pair) or original(*pair)
        try:
            endpoint.same_token("abc", "abd")
        finally:
            endpoint._compare_digest = original
        self.assertEqual(compared, [(b"abc", b"abd")])

    def test_private_folder_and_socket(self):
        folder = endpoint.make_private_folder()
        self.addCleanup(os.rmdir, folder)
        path = os.path.join(folder, "s")
        listener = endpoint.listen_unix(path)
        self.addCleanup(os.remove, path)
        self.addCleanup(listener.close)
        self.assertEqual(stat.S_IMODE(os.stat(folder).st_mode), 0o700)
        self.assertEqual(stat.S_IMODE(os.stat(path).st_mode), 0o600)
        client = endpoint.connect_unix(path)
        connected = endpoint.accept(listener)
        self.assertEqual(endpoint.peer_of_unix(connected), (os.getpid(), os.getuid()))
        client.close()
        connected.close()


class Door(TestCase):
    """tDoor without a program behind it."""

    def setUp(self):
        self.clients, self.come = [], threading.Semaphore(0)
        self.open_door("secret")

    def open_door(self, token):
        self.door = endpoint.tDoor(endpoint.listen("", 0), token, self.let_in)
        self.thread = threading.Thread(target=self.door.serve)
        self.thread.daemon = True
        self.thread.start()
        self.addCleanup(self.door.close)

    def let_in(self, connection):
        self.clients.append(connection)
        self.come.release()

    def client(self):
        client = dapclient.client_of_socket(connect(self.door.address))
        self.addCleanup(client.close)
        return client

    def attach(self, token):
        client = self.client()
        client.initialize()
        return client, client.send("attach", {} if token is None else {"token": token})

    def assert_thrown_out(self, token):
        client, seq = self.attach(token)
        response = client.response_to(seq)
        self.assertFalse(response["success"])
        self.assertIn("token", response["message"])
        client.wait_end()

    def test_right_token_lets_in_once_initialized(self):
        client, _ = self.attach("secret")
        self.come.acquire()
        inside = self.clients[0]
        self.assertEqual(inside.read()["command"], "initialize")
        attach = inside.read()
        # without the token
        self.assertEqual((attach["command"], attach["arguments"]), ("attach", {}))
        # The second answer to `initialize` is the session's; the client has had its first.
        inside.write({"type": "response", "request_seq": 1, "success": True,
                      "command": "initialize"})
        inside.write({"type": "event", "event": "initialized"})
        client.wait_event("initialized")
        self.assertEqual(len([m for m in client.messages if m["type"] == "response"]), 1)
        inside.close()

    def test_nobody_listens_while_a_client_is_in(self):
        self.attach("secret")
        self.come.acquire()
        with self.assertRaises(socket.error):
            connect(self.door.address).close()
        self.clients[0].close()
        client, _ = self.attach_when_open()
        self.come.acquire()
        self.assertEqual(len(self.clients), 2)
        self.clients[1].close()

    def attach_when_open(self):
        while True:  # until the thread listens again
            try:
                return self.attach("secret")
            except socket.error:
                pass

    def test_three_wrong_tokens_close_the_port(self):
        self.assert_thrown_out("wrong")
        self.assert_thrown_out(None)
        self.assert_thrown_out("secre")
        self.thread.join(kSeconds)
        self.assertFalse(self.thread.is_alive())
        with self.assertRaises(socket.error):
            connect(self.door.address).close()
        self.assertEqual(self.clients, [])

    def test_requests_before_the_token_reach_nobody(self):
        client = self.client()
        self.assertIn("too early", client.refused("evaluate", {"expression": "1"}))
        client.initialize()
        for command in ("evaluate", "threads", "setBreakpoints", "initialize", "launch2"):
            self.assertIn("too early", client.refused(command, {"token": "secret"}))
        client.send_bytes(b"Content-Length: 2\r\n\r\n[]")
        client.send_bytes(b'Content-Length: 12\r\n\r\n{"type": "x"')
        self.assertEqual(self.clients, [])
        self.assertEqual(client.request("disconnect"), {})
        client.wait_end()

    def test_a_web_page_reaches_nothing(self):
        for request in (b"POST / HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\nContent-Length: 2\r\n\r\n{}",
                        b"GET / HTTP/1.1\r\n\r\n", b"\x16\x03\x01\x00\xa5", b"\r\n", b"hello"):
            stranger = connect(self.door.address)
            stranger.sendall(request)
            self.assertTrue(is_closed(stranger), request)
            stranger.close()
        self.assertEqual(self.clients, [])
        self.attach("secret")  # these were no attempts at the token
        self.come.acquire()
        self.clients[0].close()

    def test_without_a_token_everybody_of_this_machine(self):
        self.door.close()
        self.open_door(None)
        self.attach(None)
        self.come.acquire()
        self.clients[0].close()

    def test_client_that_says_nothing_does_not_stay(self):
        original, endpoint.kHandshakeSeconds = endpoint.kHandshakeSeconds, 0.01
        try:
            silent = connect(self.door.address)
            self.assertTrue(is_closed(silent))
            silent.close()
        finally:
            endpoint.kHandshakeSeconds = original


class AdapterPort(TestCase):

    def start(self, *arguments, **environment):
        env = dict(os.environ, **environment)
        process = subprocess.Popen(
            dapclient.adapter_argv(*arguments), stderr=subprocess.PIPE,
            stdin=subprocess.PIPE, env=env, universal_newlines=True)
        self.addCleanup(dapclient.end_process, process)
        lines = []
        while not lines or "listening" not in lines[-1]:
            lines.append(process.stderr.readline())
            self.assertTrue(lines[-1], lines)
        self.process = process
        return lines

    def connect_when_open(self, address):
        while True:  # until the adapter listens again
            try:
                return connect(address)
            except socket.error:
                self.assertIsNone(self.process.poll())

    def test_one_client_at_a_time(self):
        address = self.address_in(self.start("--port", "0"))
        program = self.make_file("p.py", "import sys\nsys.stdin.read()\n")
        configuration = {"program": program, "noDebug": True, "python": sys.executable}
        for announces in (False, True):
            first = dapclient.client_of_socket(self.connect_when_open(address))
            self.addCleanup(first.close)
            second = dapclient.client_of_socket(connect(address))
            self.addCleanup(second.close)
            first.initialize(supportsStartDebuggingRequest=announces)
            second.initialize()
            first.request("launch", configuration)
            self.assertIn("another client", second.refused("launch", configuration))
            self.assertIn("another client", second.refused("attach", {"socket": "/tmp/x"}))
            if announces:  # its children's clients are to come
                connect(address).close()
            else:
                with self.assertRaises(socket.error):
                    connect(address)
            first.request("disconnect")
            first.wait_end()

    def address_in(self, lines):
        return ("127.0.0.1", int(lines[-1].strip().rpartition(":")[2]))

    def test_listens_on_this_machine_alone(self):
        for arguments in ([], ["--host", ""], ["--host", "localhost"]):
            lines = self.start("--port", "0", *arguments)
            port = self.address_in(lines)[1]
            with open("/proc/net/tcp") as table:
                rows = [line.split()[1] for line in table if line.split()[3] == "0A"]
            self.assertIn("0100007F:{:04X}".format(port), rows)

    def test_other_addresses_are_refused(self):
        for arguments in (["--host", "0.0.0.0"],
                          ["--host", "0.0.0.0", "--allow-remote", "--no-token"]):
            done = run_program(dapclient.adapter_argv("--port", "0", *arguments))
            self.assertEqual(done.status, 2, done)
            self.assertEqual(len(done.err.strip().splitlines()), 1, done)

    def test_remote_makes_a_token_and_says_where(self):
        lines = self.start("--port", "0", "--host", "0.0.0.0", "--allow-remote")
        path = re.search(r"token is in (\S+)", lines[0]).group(1)
        self.addCleanup(os.remove, path)
        self.assertEqual(stat.S_IMODE(os.stat(path).st_mode), 0o600)
        self.assertIn("0.0.0.0", lines[1])

    def test_web_page_and_wrong_headers(self):
        address = self.address_in(self.start("--port", "0"))
        for request in (b"POST / HTTP/1.1\r\n\r\n", b"Content-Length: x\r\n\r\n", b"\0"):
            stranger = connect(address)
            stranger.sendall(request)
            self.assertTrue(is_closed(stranger), request)
            stranger.close()
        client = dapclient.client_of_socket(connect(address))
        self.addCleanup(client.close)
        client.initialize()

    def test_token_of_a_file(self):
        path = self.make_file("token", "topsecret\n")
        os.chmod(path, 0o600)
        address = self.address_in(self.start("--port", "0", "--token-file", path))
        program = self.make_file("p.py", "print(1)\n")
        for token in (None, "wrong"):
            client = dapclient.client_of_socket(connect(address))
            self.addCleanup(client.close)
            client.initialize()
            self.assertIn("token", client.refused("launch", {"program": program, "token": token}))
            client.wait_end()
        client = dapclient.client_of_socket(connect(address))
        client.initialize()
        client.request("launch", {
            "program": program, "token": "topsecret", "noDebug": True, "python": sys.executable})
        client.wait_event("terminated")
        client.request("disconnect")
        with open("/proc/{}/cmdline".format(self.process.pid)) as source:
            self.assertNotIn("topsecret", source.read())
        client.wait_end()
        client = dapclient.client_of_socket(self.connect_when_open(address))
        client.initialize()
        self.assertIn("token", client.refused("launch", {"program": program, "token": "x"}))
        # the third one closes the port
        self.assertEqual(dapclient.wait_for_process(self.process), 2)

    def test_secret_is_not_the_programs(self):
        address = self.address_in(self.start("--port", "0", TDBG_TOKEN="topsecret"))
        client = dapclient.client_of_socket(connect(address))
        self.addCleanup(client.close)
        client.initialize()
        program = self.make_file("p.py", (
            "import os\nwith open('/proc/self/environ', 'rb') as file: text = file.read()\n"
            "print('TDBG_TOKEN' in os.environ or b'topsecret' in text)\n"))
        client.request("launch", {"program": program, "noDebug": True, "python": sys.executable})
        client.wait_event("terminated")
        text = "".join(body["output"] for body in client.seen_events("output"))
        self.assertEqual(text, "False\n")
        client.request("disconnect")

    def test_standard_streams_open_no_port(self):
        client = dapclient.start_adapter(self)
        client.initialize()
        self.assertEqual(inodes_of_sockets(client.process.pid) & listening_inodes(), set())


def inodes_of_sockets(pid):
    folder, found = "/proc/{}/fd".format(pid), set()
    for name in os.listdir(folder):
        match = re.match(r"socket:\[(\d+)\]", os.readlink(os.path.join(folder, name)))
        if match:
            found.add(match.group(1))
    return found


def listening_inodes():
    found = set()
    for table in ("/proc/net/tcp", "/proc/net/tcp6"):
        if os.path.exists(table):
            with open(table) as source:
                found.update(line.split()[9] for line in list(source)[1:]
                             if line.split()[3] == "0A")
    return found

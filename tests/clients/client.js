// A client for the tests: the protocol's own test client, with what it does not do.
//
// It tells of an event only those who wait already, and knows no requests of the adapter's.  Here all
// events are kept until somebody asks for them, and the adapter's requests can be answered.
'use strict';

const assert = require('node:assert');
const fs = require('node:fs');
const path = require('node:path');
const { spawn } = require('node:child_process');
const { DebugClient } = require('@vscode/debugadapter-testsupport');

const kWaitMs = 60000;
const kPackage = process.env.TDBG_TEST_PACKAGE;
const kAdapterPython = process.env.TDBG_TEST_ADAPTER_PYTHON || 'python3';
const kLibrary = process.env.TDBG_TEST_LIBRARY;
const kPython = process.env.TDBG_TEST_PYTHON;
const kPrograms = path.join(process.env.TDBG_TEST_FILES, 'programs');

function withinLimit(promise, what, client) {
    let timer;
    const limit = new Promise((_, reject) => {
        timer = setTimeout(() => reject(new Error(
            `no ${what}; the last messages:\n${client.lastMessages()}`)), kWaitMs);
    });
    return Promise.race([promise, limit]).finally(() => clearTimeout(timer));
}

class Client extends DebugClient {
    constructor(...debugArguments) {
        super(kAdapterPython, path.join(kPackage, 'adapter'), 'tdbg', ...debugArguments);
        this.defaultTimeout = kWaitMs;
        this.seen = [];        // all that came
        this.kept = [];        // events and requests that nobody has asked for
        this.wanted = [];      // {fits, resolve} of those who wait
    }

    // An adapter that speaks through its standard streams; ended with the test.
    static async start(test, more = []) {
        const client = new Client();
        const options = kLibrary ? ['--library', kLibrary] : [];
        const adapter = spawn(kAdapterPython, [path.join(kPackage, 'adapter'), ...options, ...more]);
        adapter.stderr.on('data', (data) => process.stderr.write(data));
        adapter.stdin.on('error', () => {});  // it may have ended
        client.adapter = adapter;
        client.adapterEnd = new Promise((resolve) => adapter.on('exit', (code) => resolve(code)));
        client.connect(adapter.stdout, adapter.stdin);
        test.after(() => adapter.kill('SIGKILL'));
        return client;
    }

    // At a program that serves its port itself.
    static async at(test, port) {
        const client = new Client();
        await client.start(port);
        client._socket.on('error', () => {});
        test.after(() => client.stopAdapter());
        return client;
    }

    // What its base class calls for each message.
    dispatch(body) {
        const message = JSON.parse(body);
        this.seen.push(message);
        if (message.type !== 'request') {
            super.dispatch(body);
        }
        if (message.type !== 'response') {
            this.offer(message);
        }
    }

    offer(message) {
        const index = this.wanted.findIndex((one) => one.fits(message));
        if (index < 0) {
            this.kept.push(message);
        } else {
            this.wanted.splice(index, 1)[0].resolve(message);
        }
    }

    take(fits, what) {
        const index = this.kept.findIndex(fits);
        if (index >= 0) {
            return Promise.resolve(this.kept.splice(index, 1)[0]);
        }
        return withinLimit(new Promise((resolve) => this.wanted.push({ fits, resolve })), what, this);
    }

    // Body of the first event that nobody has taken yet.
    async event(name, fits = () => true) {
        const isIt = (message) => message.event === name && fits(message.body || {});
        return (await this.take(isIt, `event ${name}`)).body || {};
    }

    // A request of the adapter's, which is granted.
    async reverse(command) {
        const message = await this.take((one) => one.type === 'request' && one.command === command,
            `request ${command}`);
        this.write({ type: 'response', request_seq: message.seq, success: true, command, seq: 100000 + message.seq });
        return message.arguments;
    }

    write(message) {
        const text = JSON.stringify(message);
        this.outputStream.write(`Content-Length: ${Buffer.byteLength(text)}\r\n\r\n${text}`);
    }

    // Body of the response.
    async ask(command, args) {
        return (await withinLimit(this.send(command, args), `response to ${command}`, this)).body || {};
    }

    lastMessages() {
        return this.seen.slice(-12).map((message) => JSON.stringify(message).slice(0, 500)).join('\n');
    }

    // --- what every session does ---

    initialize(more = {}) {
        return this.ask('initialize', {
            clientID: 'tests', adapterID: 'tdbg', linesStartAt1: true, columnsStartAt1: true, pathFormat: 'path',
            supportsVariableType: true, supportsVariablePaging: true, ...more });
    }

    // initialize, launch or attach, what is to be done before the program runs, configurationDone.
    async begin(request, args, configure = async () => {}, more = {}) {
        await this.initialize(more);
        const started = this.ask(request, args);
        started.catch(() => {});
        await Promise.race([this.event('initialized'), started]);
        await configure();
        await this.ask('configurationDone');
        await started;
    }

    run(program, args = {}, configure = undefined, more = {}) {
        return this.begin('launch', { program: file(program), python: kPython, ...args }, configure, more);
    }

    async breakAt(program, places) {
        const breakpoints = places.map((place) => {
            const { mark, ...more } = typeof place === 'string' ? { mark: place } : place;
            return { line: line(program, mark), ...more };
        });
        return (await this.ask('setBreakpoints', { source: { path: file(program) }, breakpoints })).breakpoints;
    }

    // [function, mark or line] of a thread's innermost frame; the thread is that of the next stop.
    async stop(reason) {
        const body = await this.event('stopped');
        assert.strictEqual(body.reason, reason, this.lastMessages());
        this.stopped = body;
        this.frames = (await this.ask('stackTrace', { threadId: body.threadId })).stackFrames;
        return this.place();
    }

    place(depth = 0) {
        const frame = this.frames[depth];
        return [frame.name, markOf(frame) || frame.line];
    }

    async go(command, reason = 'step', more = {}) {
        await this.ask(command, { threadId: this.stopped.threadId, ...more });
        return this.stop(reason);
    }

    resume() {
        return this.ask('continue', { threadId: this.stopped.threadId });
    }

    async locals(depth = 0) {
        const { scopes } = await this.ask('scopes', { frameId: this.frames[depth].id });
        return this.members(scopes[0].variablesReference);
    }

    async members(variablesReference, more = {}) {
        return (await this.ask('variables', { variablesReference, ...more })).variables;
    }

    evaluate(expression, context = 'watch') {
        return this.ask('evaluate', { expression, context, frameId: this.frames[0].id });
    }

    // Exit status of the program.
    async end() {
        await this.event('terminated');
        const exits = this.seen.filter((message) => message.event === 'exited');
        assert.strictEqual(exits.length, 1, this.lastMessages());
        return exits[0].body.exitCode;
    }

    written(category) {
        return this.seen.filter((message) => message.event === 'output' && message.body.category === category)
            .map((message) => message.body.output).join('');
    }
}

// --- programs and their marked lines ---

function file(program) {
    return path.isAbsolute(program) ? program : path.join(kPrograms, program);
}

function marks(name) {
    const found = {};
    fs.readFileSync(name, 'utf8').split('\n').forEach((text, index) => {
        const mark = /#@ (\S+)/.exec(text);
        if (mark) {
            found[mark[1]] = index + 1;
        }
    });
    return found;
}

function line(program, mark) {
    const number = marks(file(program))[mark];
    assert.ok(number, `${program} has no line ${mark}`);
    return number;
}

function markOf(frame) {
    const name = frame.source && frame.source.path;
    if (!name || !fs.existsSync(name)) {
        return undefined;
    }
    const entry = Object.entries(marks(name)).find(([, number]) => number === frame.line);
    return entry && entry[0];
}

module.exports = { Client, file, line, kLibrary, kPackage, kPython };

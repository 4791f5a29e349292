// What a user of an editor does, through the protocol's test client; the program runs under TDBG_TEST_PYTHON.
'use strict';

const assert = require('node:assert');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const readline = require('node:readline');
const { spawn } = require('node:child_process');
const { describe, it } = require('node:test');
const { Client, file, line, kLibrary, kPackage, kPython } = require('./client.js');

const kAtOnce = 3;
const kSeconds = 120000;

function folder(test) {
    const made = fs.mkdtempSync(path.join(os.tmpdir(), 'tdbg-clients-'));
    test.after(() => fs.rmSync(made, { recursive: true, force: true }));
    return made;
}

function byName(rows) {
    return Object.fromEntries(rows.map((row) => [row.name, row]));
}

describe('a client of the protocol', { concurrency: kAtOnce, timeout: 10 * kSeconds }, () => {
    const check = (name, run) => it(name, { timeout: kSeconds }, run);

    check('is told what the debugger can do', async (test) => {
        const client = await Client.start(test);
        await assert.rejects(client.ask('threads'), /initialize/);
        const can = await client.initialize();
        for (const name of [
            'supportsConfigurationDoneRequest', 'supportsConditionalBreakpoints', 'supportsHitConditionalBreakpoints',
            'supportsLogPoints', 'supportsFunctionBreakpoints', 'supportsSetVariable', 'supportsEvaluateForHovers',
            'supportsExceptionInfoRequest', 'supportsRestartRequest', 'supportsTerminateRequest',
            'supportsSteppingGranularity', 'supportsStepInTargetsRequest', 'supportsBreakpointLocationsRequest']) {
            assert.strictEqual(can[name], true, name);
        }
        assert.deepStrictEqual(can.exceptionBreakpointFilters.map((one) => one.filter), ['raised', 'uncaught', 'runner']);
        await assert.rejects(client.ask('noSuchRequest'), /noSuchRequest/);
        await assert.rejects(client.ask('launch', { program: '/no/such/file.py', python: kPython }), /\/no\/such\/file/);
        await client.ask('disconnect');
        assert.strictEqual(await client.adapterEnd, 0);
    });

    check('stops on entry, and sees output and status', async (test) => {
        const client = await Client.start(test);
        await client.run('walk.py', { stopOnEntry: true });
        assert.deepStrictEqual(await client.stop('entry'), ['<module>', 1]);
        await client.resume();
        assert.strictEqual(await client.end(), 3);
        assert.strictEqual(client.written('stdout'), 'begin\nend 91\n');
        assert.strictEqual(client.written('stderr'), 'to stderr\n');
    });

    check('hits a breakpoint where its own helper expects it', async (test) => {
        const client = await Client.start(test);
        const place = { path: file('walk.py'), line: line('walk.py', 'double') };
        await client.hitBreakpoint({ program: file('walk.py'), python: kPython }, place, place, { ...place, verified: true });
        await client.disconnectRequest({});
        assert.strictEqual(await client.adapterEnd, 0);
    });

    check('breakpoints: stack, condition, hits, log point, function', async (test) => {
        const client = await Client.start(test);
        await client.run('walk.py', {}, async () => {
            const rows = await client.breakAt('walk.py', [
                { mark: 'loop', condition: 'number == 4' }, 'double',
                { mark: 'add-up', logMessage: 'adds up {count}' }]);
            assert.deepStrictEqual(rows.map((row) => row.verified), [true, true, true]);
            const [row] = (await client.ask('setFunctionBreakpoints', { breakpoints: [{ name: 'Box.open' }] })).breakpoints;
            assert.ok(row.id > 0);
        });
        assert.deepStrictEqual(await client.stop('breakpoint'), ['add_up', 'loop']);
        assert.strictEqual(client.frames[0].source.path, file('walk.py'));
        assert.deepStrictEqual(client.frames.map((frame) => frame.name), ['add_up', 'main', '<module>']);
        assert.strictEqual((await client.evaluate('number')).result, '4');
        assert.match(client.written('console'), /adds up 10/);

        await client.breakAt('walk.py', [{ mark: 'loop', hitCondition: '3' }, 'double']);
        assert.deepStrictEqual(await client.go('continue', 'breakpoint'), ['add_up', 'loop']);
        assert.strictEqual((await client.evaluate('number')).result, '7');
        assert.deepStrictEqual(await client.go('continue', 'breakpoint'), ['double', 'double']);
        assert.deepStrictEqual(await client.go('continue', 'function breakpoint'), ['open', 'open']);
        await client.resume();
        assert.strictEqual(await client.end(), 3);
    });

    check('steps: over, in, out, over a statement of two lines', async (test) => {
        const client = await Client.start(test);
        await client.run('walk.py', {}, () => client.breakAt('walk.py', [{ mark: 'loop', hitCondition: '10' }]));
        await client.stop('breakpoint');
        await client.breakAt('walk.py', []);
        assert.strictEqual((await client.go('next'))[0], 'add_up');  // the loop's head
        assert.strictEqual((await client.go('next'))[1], line('walk.py', 'call') - 1);
        assert.deepStrictEqual(await client.go('stepIn'), ['double', 'double']);
        assert.deepStrictEqual(await client.go('next'), ['double', 'double-end']);
        assert.deepStrictEqual(await client.go('stepOut'), ['add_up', 'after-call']);
        await client.resume();
        assert.strictEqual(await client.end(), 3);
    });

    check('values: scopes, pages, changes, expressions', async (test) => {
        const client = await Client.start(test);
        await client.run('values.py', {}, () => client.breakAt('values.py', ['look']));
        await client.stop('breakpoint');
        const { scopes } = await client.ask('scopes', { frameId: client.frames[0].id });
        assert.ok(scopes.some((scope) => scope.name === 'Globals'), JSON.stringify(scopes));
        let values = byName(await client.locals());
        assert.strictEqual(values.count.value, '5');
        assert.match(values.text.value, /\u{1f333}|\\U0001f333/u);
        assert.strictEqual(values.numbers.indexedVariables, 1000);
        const page = await client.members(values.numbers.variablesReference, { filter: 'indexed', start: 990, count: 5 });
        assert.deepStrictEqual(page.map((row) => row.value), ['990', '991', '992', '993', '994']);
        const thing = byName(await client.members(values.thing.variablesReference));
        assert.strictEqual(thing.size.value, '7');

        await client.ask('setVariable', { variablesReference: scopes[0].variablesReference, name: 'count', value: '40 + 2' });
        await client.ask('setVariable', { variablesReference: values.thing.variablesReference, name: 'size', value: '8' });
        await client.evaluate('table["one"] = shared * 2', 'repl');
        values = byName(await client.locals());
        assert.strictEqual(values.count.value, '42');
        assert.strictEqual((await client.evaluate('thing.area + count')).result, '106');
        assert.strictEqual((await client.evaluate('count', 'hover')).result, '42');
        await assert.rejects(client.evaluate('nothing_of_that_name'), /NameError/);
        const { targets } = await client.ask('completions', { text: 'thing.ar', column: 9, frameId: client.frames[0].id });
        assert.ok(targets.some((target) => /area/.test(target.text || target.label)), JSON.stringify(targets));
        await client.resume();
        assert.strictEqual(await client.end(), 0);
        assert.match(client.written('stdout'), /^after 42 8 outsideoutside$/m);
    });

    check('exceptions: filters and what is told of them', async (test) => {
        const client = await Client.start(test);
        await client.run('raising.py', {}, () => client.ask('setExceptionBreakpoints', {
            filters: ['uncaught'], filterOptions: [{ filterId: 'raised', condition: 'ValueError' }] }));
        assert.deepStrictEqual(await client.stop('exception'), ['check', 'raise']);
        let info = await client.ask('exceptionInfo', { threadId: client.stopped.threadId });
        assert.match(info.exceptionId, /Refused$/);
        assert.match(info.description, /too much: 2/);
        await client.ask('setExceptionBreakpoints', { filters: ['uncaught'] });
        assert.deepStrictEqual(await client.go('continue', 'exception'), ['check', 'raise']);
        info = await client.ask('exceptionInfo', { threadId: client.stopped.threadId });
        assert.match(info.description, /too much: 3/);
        assert.deepStrictEqual(client.frames.map((frame) => frame.name), ['check', '<module>']);
        await client.resume();
        assert.strictEqual(await client.end(), 1);
        assert.match(client.written('stderr'), /too much: 3/);
    });

    check('threads and pause', async (test) => {
        const client = await Client.start(test);
        const endFile = path.join(folder(test), 'end');
        await client.run('waiting.py', { args: [endFile] });
        await client.event('output', (body) => body.output.includes('ready'));
        const { threads } = await client.ask('threads');
        assert.deepStrictEqual(threads.map((thread) => thread.name).sort(), ['MainThread', 'worker']);
        const main = threads.find((thread) => thread.name === 'MainThread').id;
        await client.ask('pause', { threadId: main });
        client.stopped = await client.event('stopped');
        assert.deepStrictEqual([client.stopped.reason, client.stopped.allThreadsStopped], ['pause', true]);
        for (const thread of threads) {
            const frames = (await client.ask('stackTrace', { threadId: thread.id })).stackFrames;
            assert.ok(frames.some((frame) => frame.name === (thread.id === main ? 'wait_for' : 'work')));
        }
        fs.writeFileSync(endFile, '');
        await client.resume();
        assert.strictEqual(await client.end(), 4);
        const ended = client.seen.filter((one) => one.event === 'thread' && one.body.reason === 'exited');
        assert.ok(ended.length >= 1);
    });

    check('restart keeps breakpoints, terminate interrupts', async (test) => {
        const client = await Client.start(test);
        const endFile = path.join(folder(test), 'end');
        await client.run('waiting.py', { args: [endFile] }, () => client.breakAt('waiting.py', ['wait']));
        assert.deepStrictEqual(await client.stop('breakpoint'), ['wait_for', 'wait']);
        await client.ask('restart');
        assert.deepStrictEqual(await client.stop('breakpoint'), ['wait_for', 'wait']);
        await client.breakAt('waiting.py', []);
        await client.resume();
        await client.ask('terminate');
        assert.strictEqual(await client.end(), 9);
        assert.match(client.written('stdout'), /interrupted/);
    });

    check('attaches to a program that serves, leaves it and comes again', async (test) => {
        const made = folder(test);
        const [endFile, tokenFile] = [path.join(made, 'end'), path.join(made, 'token')];
        fs.writeFileSync(tokenFile, '0123456789abcdef0123456789abcdef\n', { mode: 0o600 });
        const library = kLibrary ? ['--library', kLibrary] : [];
        const program = spawn(kPython, [kPackage, ...library, 'serve', '--listen', '0', '--token-file', tokenFile,
            file('waiting.py'), endFile], { stdio: ['ignore', 'ignore', 'pipe'] });
        test.after(() => program.kill('SIGKILL'));
        const ended = new Promise((resolve) => program.on('exit', resolve));
        let port;
        for await (const text of readline.createInterface({ input: program.stderr })) {
            port = Number(/listening on 127\.0\.0\.1:(\d+)/.exec(text)[1]);
            break;
        }
        const token = fs.readFileSync(tokenFile, 'utf8').trim();
        const configure = (client) => async () => { await client.breakAt('waiting.py', ['wait']); };

        // The program's own port, which wants the token first; then through an adapter.
        const direct = await Client.at(test, port);
        await direct.begin('attach', { token }, configure(direct));
        assert.deepStrictEqual(await direct.stop('breakpoint'), ['wait_for', 'wait']);
        await direct.ask('disconnect', { terminateDebuggee: false });
        const client = await Client.start(test);
        await client.begin('attach', { connect: { host: '127.0.0.1', port }, token }, configure(client));
        assert.deepStrictEqual(await client.stop('breakpoint'), ['wait_for', 'wait']);
        await client.breakAt('waiting.py', []);
        fs.writeFileSync(endFile, '');
        await client.resume();
        await client.event('terminated');
        assert.strictEqual(await ended, 4);
    });

    check('debugs a child in a session of its own', async (test) => {
        const client = await Client.start(test);
        await client.run('parent.py', { childAttachTimeout: 60 }, undefined, { supportsStartDebuggingRequest: true });
        const { request, configuration } = await client.reverse('startDebugging');
        assert.strictEqual(configuration.type, 'tdbg');
        const other = await Client.start(test);
        await other.begin(request, configuration, () => other.breakAt('child.py', ['child']));
        assert.deepStrictEqual(await other.stop('breakpoint'), ['<module>', 'child']);
        assert.strictEqual((await other.evaluate('sys.argv[1]')).result, "'5'");
        await other.resume();
        await other.event('terminated');
        assert.strictEqual(await client.end(), 6);
    });
});

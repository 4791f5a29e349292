// An extension that does in the editor what a user would, and writes down what it has seen.
'use strict';

const fs = require('fs');
const vscode = require('vscode');

// Bodies of the `stopped` events that the editor gets, in order.
class Stops {
    constructor() {
        this.seen = [];
        this.waiting = null;
    }

    createDebugAdapterTracker() {
        return {
            onDidSendMessage: (message) => {
                if (message.event === 'stopped') {
                    this.seen.push(message.body);
                    if (this.waiting) {
                        this.waiting();
                    }
                }
            },
        };
    }

    async next() {
        if (this.seen.length === 0) {
            await new Promise((done) => { this.waiting = done; });
        }
        return this.seen.shift();
    }
}

async function lookAt(stop, expression) {
    const session = vscode.debug.activeDebugSession;
    const { stackFrames: frames } = await session.customRequest(
        'stackTrace', { threadId: stop.threadId });
    const value = await session.customRequest(
        'evaluate', { expression, frameId: frames[0].id, context: 'watch' });
    return [stop.reason, frames[0].name, frames[0].line, value.result];
}

async function drive(plan, told) {
    const document = await vscode.workspace.openTextDocument(plan.program);
    await vscode.window.showTextDocument(document);
    const stops = new Stops();
    vscode.debug.registerDebugAdapterTrackerFactory('tdbg', stops);
    const ended = new Promise((done) => { vscode.debug.onDidTerminateDebugSession(done); });
    vscode.debug.addBreakpoints([new vscode.SourceBreakpoint(
        new vscode.Location(document.uri, new vscode.Position(plan.line - 1, 0)))]);
    const folder = vscode.workspace.workspaceFolders[0];
    told.push(await vscode.debug.startDebugging(folder, plan.configuration));
    told.push(await lookAt(await stops.next(), plan.expressions[0]));
    await vscode.commands.executeCommand('workbench.action.debug.stepOver');
    told.push(await lookAt(await stops.next(), plan.expressions[1]));
    told.push(vscode.window.terminals.length);
    await vscode.commands.executeCommand('workbench.action.debug.continue');
    told.push((await ended).name);
}

async function activate() {
    const told = [];
    try {
        await drive(JSON.parse(process.env.TDBG_TEST_PLAN), told);
    } catch (why) {
        told.push(String(why.stack));
    }
    fs.writeFileSync(process.env.TDBG_TEST_RESULTS, `${JSON.stringify(told)}\n`);
}

module.exports = { activate };

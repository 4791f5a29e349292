// Starts the debug adapter, through whose standard streams the editor then speaks.
'use strict';

const vscode = require('vscode');

const kType = 'tdbg';

const adapterFactory = {
    createDebugAdapterDescriptor(session) {
        const words = vscode.workspace.getConfiguration(kType, session.workspaceFolder).get('adapter');
        if (!Array.isArray(words) || words.length === 0) {
            throw new Error('The setting tdbg.adapter has to name the adapter: ["tdbg", "adapter"]');
        }
        return new vscode.DebugAdapterExecutable(words[0], words.slice(1));
    },
};

// Without a launch.json: the file that is being edited.
const configurationProvider = {
    resolveDebugConfiguration(folder, configuration) {
        if (configuration.type || configuration.request || configuration.name) {
            return configuration;
        }
        const editor = vscode.window.activeTextEditor;
        if (!editor || editor.document.languageId !== 'python') {
            return undefined;
        }
        return {
            type: kType, request: 'launch', name: 'Python: this file', program: '${file}', console: 'integratedTerminal',
        };
    },
};

function activate(context) {
    context.subscriptions.push(
        vscode.debug.registerDebugAdapterDescriptorFactory(kType, adapterFactory),
        vscode.debug.registerDebugConfigurationProvider(kType, configurationProvider));
}

module.exports = { activate };

// Tells tests/clients/run how each test went: one line of JSON for each.
'use strict';

module.exports = async function* report(source) {
    for await (const { type, data } of source) {
        const isTest = (type === 'test:pass' || type === 'test:fail') && data.details?.type !== 'suite';
        if (!isTest) {
            continue;
        }
        const error = data.details?.error;
        yield `${JSON.stringify({
            name: data.name,
            status: data.skip !== undefined ? 'skipped' : type === 'test:pass' ? 'passed' : 'failed',
            reason: typeof data.skip === 'string' ? data.skip : '',
            output: error ? String(error.cause?.stack || error.cause || error.stack || error) : '',
        })}\n`;
    }
};

"""What this debugger can do, as told in the answer to `initialize`: one table for both sides."""
from __future__ import absolute_import, division, print_function

kExceptionFilters = [
    {
        "filter": "raised",
        "label": "Raised Exceptions",
        "description": "Stop whenever an exception is raised, once per raise",
        "default": False,
        "supportsCondition": True,
        "conditionDescription": "names of types, separated by commas",
    },
    {
        "filter": "uncaught",
        "label": "Uncaught Exceptions",
        "description": "Stop where an exception is raised that nothing will catch",
        "default": True,
        "supportsCondition": True,
        "conditionDescription": "names of types, separated by commas",
    },
    {
        "filter": "runner",
        "label": "Exceptions That a Test Runner or Server Would Print",
        "description": "Stop at exceptions that leave the program's code for a runner's that "
                       "reports them",
        "default": False,
        "supportsCondition": True,
        "conditionDescription": "names of types, separated by commas",
    },
]

kCapabilities = {
    "supportsConfigurationDoneRequest": True,
    "supportsFunctionBreakpoints": True,
    "supportsConditionalBreakpoints": True,
    "supportsHitConditionalBreakpoints": True,
    "supportsLogPoints": True,
    "supportsBreakpointLocationsRequest": True,
    "supportsEvaluateForHovers": True,
    "supportsClipboardContext": True,
    "supportsSetVariable": True,
    "supportsSetExpression": True,
    "supportsValueFormattingOptions": True,
    "supportsCompletionsRequest": True,
    "completionTriggerCharacters": ["."],
    "supportsGotoTargetsRequest": True,
    "supportsStepInTargetsRequest": True,
    "supportsSteppingGranularity": True,
    "supportsDelayedStackTraceLoading": True,
    "supportsModulesRequest": True,
    "supportsLoadedSourcesRequest": True,
    "supportsExceptionInfoRequest": True,
    "supportsExceptionFilterOptions": True,
    "supportsExceptionOptions": True,
    "supportedChecksumAlgorithms": ["MD5", "SHA1", "SHA256"],
    "exceptionBreakpointFilters": kExceptionFilters,
    "supportsTerminateRequest": True,
    "supportTerminateDebuggee": True,
    "supportsRestartRequest": True,
    "supportsCancelRequest": True,
}

# What only the adapter can do, for it starts the program.
kOfAdapterOnly = ("supportsRestartRequest",)


def of_debuggee():
    """The capabilities of a debuggee that serves a client without an adapter."""
    return dict(item for item in kCapabilities.items() if item[0] not in kOfAdapterOnly)

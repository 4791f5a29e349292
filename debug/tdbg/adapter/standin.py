"""Who answers the client while no debugger does: where there is no program yet, or it runs without
one.
"""
from tdbg.adapter import memory


class tStandIn:
    """client: clientside.tClient;  kept: memory.tMemory."""

    def __init__(self, client, kept):
        self._client, self._memory = client, kept
        self.is_configured = False  # configurationDone came before there was a program

    def answer_early(self, request):
        command = request["command"]
        if command in memory.kBreakpointRequests:
            self._client.respond(request, {"breakpoints": self._memory.keep_early(request)})
        elif command in memory.kKeptRequests:
            self._memory.keep_unnumbered(request)
            self._client.respond(request)
        elif command == "configurationDone":
            self.is_configured = True
            self._client.respond(request)
        else:
            self._client.fail(
                request, "`{}` comes too early: there is no program yet".format(command))

    def answer_undebugged(self, request, has_ended):
        command = request["command"]
        if command in memory.kBreakpointRequests:
            rows = request.get("arguments", {}).get("breakpoints") or ()
            self._memory.keep_unnumbered(request)
            self._client.respond(request, {"breakpoints": [
                {"verified": False, "message": "the program runs without a debugger"}
                for _ in rows]})
        elif command == "threads":
            self._client.respond(request, {"threads": []})
        elif command == "configurationDone":
            self._client.respond(request)  # it may even have ended
        elif has_ended:
            self._client.fail(request, "the program has ended")
        else:
            self._client.fail(request, "the program runs without a debugger")

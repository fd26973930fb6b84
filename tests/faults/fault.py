"""What every fault is made of."""


class Fault:
    """A row of the matrix. `strike` is called while the daemon is stopped within what it is doing."""

    name = title = ""
    rounds = (None,)  # it strikes once for each, known to it as `round`
    round = None
    idle_vyr = False  # whether a stand-in routes nothing in the routing daemon's place
    before_start = False  # at a start it strikes before the daemon, else in the middle
    statuses = {}  # that the daemon ends with, by the doing's name or "any"
    nonsense = {}  # why a cell makes no sense, by the doing's name

    def prepare(self, world):
        """Before anything runs."""

    def strike(self, world):
        """Begins it."""

    def meanwhile(self, world):
        """What happens as long as it lasts."""

    def promised(self, doing):
        """What the log says about it: texts as they appear."""
        return []

    def end(self, world):
        """Ends it; what follows has to mend itself."""

    def statuses_in(self, doing):
        """What the daemon may end with; None where it goes on."""
        status = self.statuses.get(doing.name, self.statuses.get("any"))
        return None if status is None else (status,)

"""A MariaDB of the run's own that can go back to a state it was in."""
import os
import shutil

from server_processes import DATABASE, PASSWORD, USER, MariaDb

__all__ = ["DATABASE", "PASSWORD", "USER", "Database"]


class Database(MariaDb):
    """Reached through its socket: its port is another one after each restart."""

    def command(self):
        """Of much memory, and after the first start without the statements for an empty one."""
        made = os.path.exists(self.path("kept"))
        return [argument for argument in super().command()
                if not argument.startswith("--innodb-buffer-pool-size")
                and not (made and argument.startswith("--init-file"))] + [
                    "--innodb-buffer-pool-size=128M", "--skip-log-bin",
                    "--character-set-server=utf8mb4"]

    def keep(self):
        """Remembers the present state."""
        self._stop()
        shutil.rmtree(self.path("kept"), ignore_errors=True)
        self._copy("data", "kept")
        self._start()

    def restore(self):
        """Goes back to the state remembered."""
        self._stop()
        shutil.rmtree(self.path("data"))
        self._copy("kept", "data")
        self._start()

    def _copy(self, source, target):
        self.run("/bin/cp", "-a", self.path(source), self.path(target))

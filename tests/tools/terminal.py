"""norvctl on a terminal."""

import os
import pty
import re
import select
import subprocess
import time

import harness


class Terminal:
    """norvctl, or another program, with a terminal as its output and its errors, and as its input
    where that is wanted."""

    def __init__(self, *arguments, input=False, columns=None, program=harness.NORVCTL):
        self.end, other = pty.openpty()
        if columns:
            import fcntl
            import struct
            import termios

            fcntl.ioctl(other, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
        self.popen = subprocess.Popen(
            [program, *arguments],
            stdin=other if input else subprocess.DEVNULL,
            stdout=other,
            stderr=other,
            start_new_session=True,
            preexec_fn=self._control if input else None,
        )
        os.close(other)
        self.text = ""

    @staticmethod
    def _control():
        # Its own terminal, so that ^C typed there is a signal.
        import fcntl
        import termios

        fcntl.ioctl(0, termios.TIOCSCTTY, 0)

    def _read(self, until):
        """Takes in what there is; false when the program has closed its side."""
        assert select.select([self.end], [], [], max(0, until - time.monotonic()))[0], self.text
        try:
            data = os.read(self.end, 65536)
        except OSError:  # how a terminal says that nobody holds its other side
            return False
        self.text += data.decode(errors="replace")
        return bool(data)

    def wait_for(self, pattern, patience=harness.PATIENCE):
        """Waits for a text behind the one that was waited for before."""
        until = time.monotonic() + patience
        while True:
            found = re.search(pattern, self.text[self.seen:])
            if found:
                self.seen += found.end()
                return found
            assert self._read(until), f"ended without {pattern!r}:\n{self.text!r}"

    def type(self, text):
        os.write(self.end, text.encode())

    seen = 0

    def finish(self):
        until = time.monotonic() + harness.PATIENCE
        while self._read(until):
            pass
        os.close(self.end)
        return self.popen.wait(max(0.1, until - time.monotonic()))

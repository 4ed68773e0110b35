"""The directory of a run."""
import os
import pathlib
import shutil
import sys
import tempfile

from .tls import Certificates


class Workspace:
    """A directory with throw-away certificates; it stays when the run fails, or RA_KEEP is set.

    Its name is short, since the path of a bus socket may have no more than 107 characters.
    """

    def __init__(self):
        self.keep = bool(os.environ.get("RA_KEEP"))
        self.directory = pathlib.Path(tempfile.mkdtemp(prefix="ra-", dir="/tmp"))
        (self.directory / "tls").mkdir()
        self.certificates = Certificates(self.directory / "tls")

    def __enter__(self):
        return self

    def __exit__(self, error, *_):
        if self.keep or error:
            print(f"what the run left is in {self.directory}", file=sys.stderr)
        else:
            shutil.rmtree(self.directory, ignore_errors=True)

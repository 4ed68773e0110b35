"""The audit of a real run: every line against its schema, a crash, rotation, and a reader that does not read."""
import fcntl
import json
import os
import signal
import socket
import ssl
import subprocess

import jsonschema
import pytest
import websockets.sync.client as sync_client  # pylint: disable=unused-import

from harness.network import free_port
from harness.sandbox import BIN, PASSWORD, REPOSITORY
from harness.waiting import SCALE, poll
from test_demo_path import Tunnel

"""The daemon in its sandbox, with a bus and a configuration manager, and the reference back end."""
import json

from harness.network import free_port
from harness.sandbox import BIN, CA_FILE, CONFIG, CONFIG_DIR, Gateway, start_gateways
from harness.tls import HOST
from harness.waiting import poll


def start(place, level):
    listen, (certificate, key) = free_port(), place.tls.paths()
    service = {"type": "TCP", "name": "bench", "ip": "127.0.0.1", "port": place.service}
    device = {name: CONFIG[f"gw_system_{name.replace('_', '')}"]
              for name in ("product_key", "device_name", "device_secret")}
    devices = place.write("devices.json", json.dumps({"devices": [device]}))
    far = place.spawn("backend", BIN / "remote_access_backend", "--listen", f"127.0.0.1:{listen}",
                      "--cert", certificate, "--key", key, "--devices", devices,
                      "--forward", f"{place.operator}={CONFIG['gw_system_devicename']}/bench")
    gateway = Gateway(
        place.directory, "gateway", cloud=listen,
        config={"gw_remoteaccess_cloud_host": HOST, "gw_remoteaccess_tls_type": 1,
                "gw_remoteaccess_trans_timeout": 2000},
        files={CA_FILE: place.tls.authority, f"{CONFIG_DIR}/logger.conf": f"level={level}\n",
               f"{CONFIG_DIR}/remote_terminal.json": json.dumps([service])})
    start_gateways([gateway])
    place.keep = gateway  # it goes with its sandbox
    log = place.directory / "backend.log"
    poll(lambda: " connected, services: " in log.read_text(), 20, log.read_text)
    return gateway.daemon.pid, far

"""The daemon in its sandbox, with a bus and a configuration manager, and the reference back end."""
from harness.backend import start_back_end
from harness.network import free_port
from harness.sandbox import BIN, CONFIG_DIR, Gateway, start_gateways
from harness.tls import HOST
from harness.waiting import poll


def start(place, level, *options, binaries=BIN, keeper=False):
    listen, beside, offers = free_port(), [], [
        {"type": "TCP", "name": "bench", "ip": "127.0.0.1", "port": place.service}]
    if keeper:
        offers += [{"type": "KEEPER", "name": "keeper", "ip": "127.0.0.1", "port": free_port()}]
    gateway = Gateway(
        place.directory, "gateway", cloud=listen, level=level, authority=place.tls.authority,
        binaries=binaries, system=place.system,
        config={"gw_remoteaccess_trans_timeout": 2000},
        files={"etc/hosts": f"127.0.0.1 localhost\n{place.far_address} {HOST}\n"},
        services=offers)
    if keeper:
        beside = [gateway.spawn_beside("keeper", binaries / "remote_access_keeper", "--services",
                                       gateway.root / CONFIG_DIR / "remote_terminal.json").pid]
        gateway.beside.wait_for_line("keeper", "listening at")
    with place.far_side:
        far = start_back_end(gateway, (place.far_address, listen), place.tls.paths(),
                             *options, ports={"bench": place.operator}, wrapper=place.wrapper)
    start_gateways([gateway])
    place.keep = gateway  # it ends with its sandbox
    poll(lambda: " connected, services: " in gateway.log_beside("backend"), 20,
         lambda: gateway.log_beside("backend"))
    return [gateway.daemon.pid, *beside], [far.pid]

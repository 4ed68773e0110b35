"""The start of the reference back end."""
import json

DEVICE_KEYS = ("product_key", "device_name", "device_secret")


def device_entry(gateway, **more):
    return {key: gateway.config["gw_system_" + key.replace("_", "")] for key in DEVICE_KEYS} | more


def start_back_end(gateway, listen, certificate, *options, ports=(), registered=None,
                   wrapper=()):
    """The back end that serves this gateway, beside it; returns its process once it listens.

    listen       (address, port) of the channel, in the namespace that this thread is in
    certificate  the paths of its certificate and key
    ports        the port for a service of the gateway, by the service's name
    registered   the devices' entries, when there are others than this gateway's
    wrapper      a command that runs it
    """
    devices = gateway.root / "devices.json"
    devices.touch(0o600)
    devices.write_text(json.dumps({"devices": registered or [device_entry(gateway)]}))
    name = gateway.config["gw_system_devicename"]
    forwards = [part for service, port in dict(ports).items()
                for part in ("--forward", f"{port}={name}/{service}")]
    starts = gateway.log_beside("backend").count("listening on")
    process = gateway.spawn_beside(
        "backend", *wrapper, gateway.binaries / "remote_access_backend",
        "--listen", "{}:{}".format(*listen), "--cert", certificate[0], "--key", certificate[1],
        "--devices", devices, *forwards, *options)
    gateway.beside.wait_for_line("backend", "listening on", starts + 1)
    return process

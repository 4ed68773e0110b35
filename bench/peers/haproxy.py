"""haproxy: a plain relay on the gateway and another on the far side, with a connection for each
session and without encryption."""
from harness.network import free_port

CONFIGURATION = """defaults
  mode tcp
  timeout connect 5s
  timeout client 1h
  timeout server 1h
listen relay
  bind 127.0.0.1:{accept}
  server next 127.0.0.1:{connect}
"""


def start(place):
    def relay(name, accept, connect):
        config = place.write(f"{name}.cfg", CONFIGURATION.format(accept=accept, connect=connect))
        pid = place.start(name, "haproxy", "-db", "-f", config).pid
        place.wait_for_port(accept)
        return pid

    between = free_port()
    return [relay("gateway", between, place.service)], [relay("far", place.operator, between)]

"""stunnel: a TLS proxy on the gateway and its client on the far side, with a TLS connection for
each session, so that there is no multiplexing to pay for."""
from harness.network import free_port
from harness.tls import HOST

COMMON = """foreground = yes
pid =
[way]
accept = {here}:{accept}
connect = {there}:{connect}
"""
GATEWAY = COMMON + "cert = {certificate}\nkey = {key}\n"
FAR = COMMON + "client = yes\nCAfile = {authority}\nverifyChain = yes\ncheckHost = {host}\n"


def start(place):
    def proxy(name, text, **values):
        pid = place.start(name, "stunnel4",
                          place.write(f"{name}.conf", text.format(**values))).pid
        place.wait_for_port(values["accept"])
        return pid

    between, (certificate, key) = free_port(), place.tls.paths()
    gateway = proxy("gateway", GATEWAY, here=place.gateway_address, accept=between,
                    there="127.0.0.1", connect=place.service, certificate=certificate, key=key)
    with place.far_side:
        far = proxy("far", FAR, here="127.0.0.1", accept=place.operator,
                    there=place.gateway_address, connect=between, host=HOST,
                    authority=place.tls.directory / "ca.pem")
    return [gateway], [far]

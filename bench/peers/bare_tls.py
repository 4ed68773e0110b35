"""One bare TLS connection inside the load: no way to measure, but the least that one can cost. The
gateway's figures are those of one end in TLS and one plain."""

SUITES = {"aes128": "TLS_AES_128_GCM_SHA256", "aes256": "TLS_AES_256_GCM_SHA384"}


def start(place, suite):
    place.bare = (SUITES[suite], *place.tls.paths())
    return [], []

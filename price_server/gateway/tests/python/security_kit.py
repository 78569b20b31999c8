"""What the cases of security_test.py share: the list of them, two tokens, and requests with them."""

from gateway_kit import Cases, http

cases = Cases("security")
ALL, SOME = "all-markets-secret-0123456789", "one-market-secret-0123456789"
INSTRUMENT = "SIM:GOLD-JUN27"
HEADERS = ("content-security-policy", "x-content-type-options", "referrer-policy", "cross-origin-resource-policy",
           "cache-control", "content-type")


def bearer(token):
    return [("Authorization", f"Bearer {token}")] if token is not None else []


def upgrade(port, path="/ws", headers=(), wrap=None):
    lines = [("Upgrade", "websocket"), ("Connection", "Upgrade"), ("Sec-WebSocket-Key", "dGhlIHNhbXBsZSBub25jZQ=="),
             ("Sec-WebSocket-Version", "13"), *headers]
    return http(port, "GET", path, lines, wrap=wrap)


def check_headers(group, name, answer):
    missing = [header for header in HEADERS if header not in answer.headers]
    cases.check(group, f"{name}: every header", not missing, f"missing {missing}")

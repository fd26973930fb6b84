"""Configuration files as the daemon writes them."""

from pathlib import Path

LOG_LINE = 'log "/var/log/korvalog/NETWORK.log" 40960 "/var/log/korvalog/NETWORK.log.1" { warning, error, fatal };\n'
APPLICATION = "protocol app {\n\t max_prefixes 512;\n\t ipv4 {\n\t\t export all;\n\t};\n}\n"


def write_static(*routes):
    """Renamed into place, as the daemon does it."""
    new = Path("/tmp/vyr_static.conf.new")
    new.write_text("protocol static {\n  ipv4;\n" + "".join(routes) + "}\n")
    new.rename("/tmp/vyr_static.conf")


def route(prefix, *hops, metric=1):
    return f"  route {prefix} metric {metric} " + "\n      ".join(f"via {hop} " for hop in hops) + \
        f"{{\n    krt_metric = {metric};\n    preference = 256;\n  }};\n"


def write_all():
    """All files that the main one includes, with one static route."""
    Path("/tmp/vyr_log.conf").write_text(LOG_LINE)
    Path("/tmp/vyr_app.conf").write_text(APPLICATION)
    Path("/tmp/vyr_oap.conf").write_text("")
    write_static(route("10.1.0.0/16", "192.168.10.2", metric=5))

"""The overlay's file as it must be, byte for byte."""

from lab import MAC, SERIAL

TEMPLATE_PART = '\t local tenant id "lab-tenant";\n\t keepalive 30;\n\t cbs_reconnect_timeout 15;\n'


def overlay_file(vlans=(), site="lab-site", template_part=TEMPLATE_PART):
    """Of an overlay that is on. `template_part` is what only the template can have set."""
    accept = "function oap_vlan_accept() {\n\treturn (ifvlan ~ [" + ",".join(map(str, vlans)) + "]);\n}\n"
    rule = "\t if ((source = RTS_DEVICE) && (oap_vrrp_accept()) && (oap_vlan_accept())) then accept;\n"
    return (
        "function oap_vrrp_accept() {\n\t return true;\n}\n" + (accept if vlans else "") +
        "filter oap_export_filter {\n\t if scope = SCOPE_HOST then reject;\n"
        '\t if ((source = RTS_DEVICE) && (ifname ~ "tun*")) then accept;\n' + (rule if vlans else "") +
        '\t reject;\n}\nprotocol oap {\n\t master 127.0.0.1 port 50050;\n\t local tunnel "tsgw";\n'
        f'\t local mac "{MAC}";\n\t local serial "{SERIAL}";\n\t local site id "{site}";\n{template_part}'
        "\t ipv4 {\n\t\t import all;\n\t\t export filter oap_export_filter;\n\t };\n}\n")

"""What the overlay's and the log levels' files must hold, told from the store alone: a set of texts where earlier
values count too, None where any will do."""

from overlay_text import overlay_file
from route_model import number

from application_keys import OVERLAY_KEY, REDISTRIBUTED_KEY
from lab import LEVEL_KEY, VYR_LEVEL_KEY

_VALUE_LENGTH = 20000
_ID_LENGTH = 11
_MOST_VLANS = 4096
_LEVEL_LENGTH = 16

_CATEGORIES = {b"warn": " warning,", b"notice": " remote, warning,", b"info": " info, remote, warning,",
               b"debug": " debug, trace, info, remote, warning,"}
_ALL = "{ debug, trace, info, remote, warning, error, auth, fatal, bug };\n"
_VYR_LINE = 'log "/var/log/korvalog/vyr.log" 81920 "/var/log/korvalog/vyr.log.1" ' + _ALL
_DEBUG_ON = 'log "/var/log/korvalog/vyr.log" 10485760 "/var/log/korvalog/vyr.log.1" ' + _ALL
_DEBUG_OFF = 'log "/var/log/korvalog/NETWORK.log" { warning, error, auth, fatal, bug };\n'
_OWN_LEVELS = (b"emerg", b"alert", b"crit", b"err", b"error", b"warning", b"warn", b"notice", b"info", b"debug")


def overlay_differences(store, text):
    """`text` is the overlay's file."""
    enabled, vlans = overlay_enabled(store), redistributed_vlans(store)
    if text == "":
        return ["overlay file: empty, but the overlay is on"] if enabled is True else []
    if enabled is False:
        return ["overlay file: not empty, but the overlay is off"]
    if vlans is None:  # the list of before stays when the key is deleted
        vlans = _vlans_in(text)
    if text == overlay_file(vlans):
        return []
    return [f"overlay file: has the VLANs {_vlans_in(text)}, not {vlans}" if _vlans_in(text) != vlans
            else f"overlay file: not as it is written: {text!r}"]


def _vlans_in(text):
    _, found, rest = text.partition("ifvlan ~ [")
    return [int(word) for word in rest.partition("]")[0].split(",") if word.isdigit()] if found else []


def overlay_enabled(store):
    """True, False, or None where the value leaves it as it was."""
    value = store.get(OVERLAY_KEY.encode(), b"\0")
    if not isinstance(value, bytes):
        return None
    return {b"\1": True, b"\0": False, b"": False}.get(value[:1])


def redistributed_vlans(store):
    """The list, None when the key is gone."""
    value = store.get(REDISTRIBUTED_KEY.encode())
    if value is None:
        return None
    if not isinstance(value, bytes):
        return []
    text = value[:_VALUE_LENGTH].split(b"\0")[0]
    brace = text.find(b"{")
    vlans, rest = [], text[brace + 1:] if brace >= 0 else b""
    while True:
        separator = b":" if b":" in rest else b"}"
        token, found, rest = rest.partition(separator)
        if not found:
            return vlans[:_MOST_VLANS]
        if len(token) <= _ID_LENGTH and 0 < number(token) < 4096:
            vlans.append(number(token))


def log_file_differences(store, text):
    """`text` is the routing daemon's log file."""
    wanted = log_files(store)
    return [] if text in wanted else [f"log file: {text!r} is none of {sorted(wanted)}"]


def log_files(store):
    """The level's own text, or the one that the last switch of debugging wrote."""
    word = store.get(VYR_LEVEL_KEY.encode())
    if isinstance(word, bytes):
        wanted = {_level_file(word[:_LEVEL_LENGTH].split(b"\0")[0])}
    else:
        wanted = {_level_file(each) for each in (*_CATEGORIES, b"")}
    own = store.get(LEVEL_KEY.encode())
    own = own[:_LEVEL_LENGTH].split(b"\0")[0] if isinstance(own, bytes) else b""
    if own not in _OWN_LEVELS:  # the level of before
        return wanted | {_DEBUG_ON, _DEBUG_OFF}
    return wanted | {_DEBUG_ON if own == b"debug" else _DEBUG_OFF}


def _level_file(word):
    categories = _CATEGORIES.get(word, "") + " error, auth, fatal, bug "
    return ('log "/var/log/korvalog/NETWORK.log" 40960 "/var/log/korvalog/NETWORK.log.1" {' + categories + " };\n" +
            _VYR_LINE + "\n")

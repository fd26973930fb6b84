"""The lab, kept running: a shell beside an access point, until it is left."""

import os
import subprocess
import sys
import tempfile

from lab import LOG, REDIS_SOCKET, AccessPoint

HELP = f"""The lab runs: Redis, vyrwrap, and in about 10 s the routing daemon under it. Try:

  redis-cli set '/op/staticroute/{{10.1.0.0:255.255.0.0:1:192.168.10.2}}' 5
  cat /tmp/vyr_static.conf         what vyrwrap wrote, at once
  vyrc show route                  what the routing daemon holds, 5 to 10 s later
  ip route                         what the kernel holds
  redis-cli del '/op/staticroute/{{10.1.0.0:255.255.0.0:1:192.168.10.2}}'
  tail -f {LOG} /tmp/vyrwrap.err   the logs: vyrwrap's, and what it and vyr print
  rpapp                            the routing application's end of the link; type "help" there
  redis-cli set /op/syslog/facility/network/level debug    vyrwrap tells everything

"exit" ends the lab and all that runs in it.
"""

PROFILE = f"""PATH=/korva/bin:$PATH:/usr/sbin:/sbin
PS1='lab# '
redis-cli() {{ command redis-cli -s {REDIS_SOCKET} "$@"; }}
"""


def main():
    with AccessPoint(), tempfile.NamedTemporaryFile("w", prefix="lab-profile") as profile:
        profile.write(PROFILE)
        profile.flush()
        print(HELP, flush=True)
        subprocess.run(["bash", "--noprofile", "--rcfile", profile.name, "-i"],
                       env={**os.environ, "TERM": os.environ.get("TERM", "dumb")}, check=False)
    return 0


sys.exit(main())

"""The lab's prompt takes commands and ends with them.

    lab_prompt.py ROOT
"""

import subprocess
import sys

COMMANDS = """redis-cli set '/op/staticroute/{10.1.0.0:255.255.0.0:1:192.168.10.2}' 5
for i in $(seq 100); do grep via /tmp/vyr_static.conf && break; sleep 0.1; done
echo help | timeout 1 rpapp
exit
"""


def main() -> int:
    done = subprocess.run([f"{sys.argv[1]}/lab/lab"], input=COMMANDS, capture_output=True, text=True, timeout=60,
                          check=False)
    wanted = ("The lab runs", "OK\n", "route 10.1.0.0/16 metric 5 via 192.168.10.2", "replay tunnels|vlans|clusters")
    missing = [text for text in wanted if text not in done.stdout]
    if missing or done.returncode != 0:
        print(f"status {done.returncode}; missing: {missing}\n{done.stdout}{done.stderr}")
        return 1
    return 0


sys.exit(main())

"""The unit file, judged by systemd's own checker with the built program in place of the installed one.

usage: unit_test.py PRICE_SERVER UNIT_FILE
"""

import os
import re
import shutil
import subprocess
import sys
import tempfile

from server_process import Table

MOST_EXPOSURE = 2.0  # of 10, as systemd-analyze security counts
NEEDED = ["Type=notify", "KillMode=mixed", "Restart=on-failure", "DynamicUser=yes", "NoNewPrivileges=yes",
          "ProtectSystem=strict", "MemoryDenyWriteExecute=yes"]


def main():
    program, unit = sys.argv[1:]
    table = Table()
    with open(unit) as file:
        text = file.read()
    lines = text.splitlines()
    for line in NEEDED:
        table.check(f"it says {line}", line in lines)
    watchdog = re.search(r"^WatchdogSec=(\d+)$", text, re.M)
    # The probe runs four times a second, and pings at most three times in the interval.
    table.check("its watchdog is not too quick for the probe", watchdog and int(watchdog.group(1)) >= 2)
    if shutil.which("systemd-analyze") is None:
        table.check("systemd-analyze is installed (package systemd)", False)
        return table.result()
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "price_server.service")
        with open(path, "w") as file:
            file.write(text.replace("/usr/bin/price_server", program))
        verify = subprocess.run(["systemd-analyze", "verify", "--man=no", path], capture_output=True, text=True)
        table.check("systemd-analyze verify says nothing", verify.returncode == 0 and not verify.stderr, verify.stderr)
        security = subprocess.run(["systemd-analyze", "security", "--offline=true", "--no-pager", path],
                                  capture_output=True, text=True)
        exposure = re.search(r"Overall exposure level for \S+: ([\d.]+)", security.stdout)
        table.check(f"its exposure is at most {MOST_EXPOSURE}", exposure and float(exposure.group(1)) <= MOST_EXPOSURE,
                    security.stdout[-300:] + security.stderr)
    return table.result()


if __name__ == "__main__":
    sys.exit(main())

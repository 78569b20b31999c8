"""The feed's state on the metrics page: running, ended with its recording, failed when the recording is damaged or lost.

usage: feed_state_test.py PRICE_SERVER
"""

import os
import re
import subprocess
import sys
import tempfile

from server_process import PriceServer, Table, fetch, wait_for

HEADER = "ts_ns,exch_ms,market,symbol,event,side,level,price,qty,seq,last\n"
ROWS = "".join(f"{t},,M,A,snap,B,0,10,1,{t},1\n" for t in (1, 2, 3))


class ReplayingServer(PriceServer):
    """Plays one file as fast as it can."""

    BASE = ('<PriceServer><Logging level="100"/><Markets><Market id="1" name="M"/></Markets><Providers><Mds>'
            '<Replay speed="{rate}" loop="{gateway}"><File path="FILE"/></Replay></Mds></Providers><Gateway port="0"/>'
            '</PriceServer>')

    def __init__(self, program, path, loops):
        self.BASE = self.BASE.replace("FILE", path)
        super().__init__(program, gateway="yes" if loops else "no", rate=0)

    def states(self):
        page = fetch(self.url + "/metrics")[1]
        return re.findall(r'^price_server_provider_state\{provider="mds",state="(\w+)"\} 1$', page, re.M)


def write(folder, name, content):
    path = os.path.join(folder, name)
    with open(path, "wb") as file:
        file.write(content)
    return path


def main():
    program = sys.argv[1]
    table = Table()
    with tempfile.TemporaryDirectory() as folder:
        good = write(folder, "good.csv", (HEADER + ROWS).encode())
        with ReplayingServer(program, good, loops=False) as server:
            wait_for(lambda: server.states() == ["ended"], "end of the feed")
            table.check("a recording that is over has ended", True)

        with ReplayingServer(program, good, loops=True) as server:
            table.check("one that loops runs", server.states() == ["running"], server.states())
            os.remove(good)
            wait_for(lambda: server.states() == ["failed"], "failure of the feed")
            table.check("and has failed when its file is gone", True)

        good = write(folder, "good.csv", (HEADER + ROWS).encode())
        packed = subprocess.run(["zstd", "-c", good], capture_output=True, check=True).stdout
        cut = write(folder, "cut.csv.zst", packed[:-1])
        with ReplayingServer(program, cut, loops=False) as server:
            wait_for(lambda: server.states() == ["failed"], "failure of the feed")
            table.check("one that is cut off has failed", True)

        for path, code in ((good, 0), (cut, 1)):
            done = subprocess.run([program, "--replay", path, "--once", "--speed", "max", "--no-gateway"],
                                  capture_output=True, text=True, timeout=60)
            table.check(f"--once of {os.path.basename(path)} ends with {code}", done.returncode == code,
                        (done.returncode, done.stderr))
            table.check(f"and says so only when it must: {os.path.basename(path)}",
                        ("feed has failed" in done.stderr) == (code != 0), done.stderr)
    return table.result()


if __name__ == "__main__":
    sys.exit(main())

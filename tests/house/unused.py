"""Ignores the results that must not be ignored: the compiler warns of each, in C and in C++."""

import argparse
import re
import subprocess

import house

CALLS = {
    "evloop.h": ["evloop_init()", "evloop_io_init()"],
    "buffer.h": ['buffer_printf(b, "%d", 1)', 'buffer_vprintf(b, "", *arguments)'],
    "sock.h": ["sock_listen(0, 0, 0, 0)", "sock_connect(0, 0, 0, 0)"],
    "httpd.h": [
        'http_res_put_status_line(b, 11, 200, "OK")',
        'http_res_put_header(b, "Name", "%d", 1)',
        "httpd_common_headers(0)",
    ],
    "ubus.h": ["ubus_parse_json_msg(0, 0)"],
    "net.h": ['iface_mac_binary("lan", mac)'],
    "hash.h": ["md5_fd(0, 0, 0, mac)", "sha256_fd(0, 0, 0, mac)", 'hash_md5_str("", mac)'],
    "caldata.h": ['find_mtd("")'],
}

parser = argparse.ArgumentParser()
parser.add_argument("--tree", required=True)
parser.add_argument("--c", required=True)
parser.add_argument("--cxx", required=True)
parser.add_argument("--system-include", nargs="*", default=[], help="folders of other libraries' headers")
arguments = parser.parse_args()

calls = [call for header in CALLS.values() for call in header]
lines = [f'#include "lib/{header}"' for header in CALLS]
lines += ["void ignore(struct buffer *b, va_list *arguments, unsigned char *mac);"]
lines += ["void ignore(struct buffer *b, va_list *arguments, unsigned char *mac)", "{"]
first = len(lines) + 1
lines += [f"\t{call};" for call in calls] + ["}", ""]

for compiler, language in ((arguments.c, "c11"), (arguments.cxx, "c++20")):
    result = subprocess.run(
        [
            *(compiler, "-x", language.rstrip("0123456789"), f"-std={language}", "-Wall"),
            *("-S", "-o", "/dev/null"),
            f"-I{arguments.tree}",
            *(f"-isystem{folder}" for folder in arguments.system_include),
            "/dev/stdin",
        ],
        input="\n".join(lines),
        capture_output=True,
        text=True,
        check=False,
    )
    warned = {int(line) for line in re.findall(r":(\d+):\d+: warning: .*\[-Wunused-result\]", result.stderr)}
    for number, call in enumerate(calls, first):
        if number not in warned:
            print(result.stderr)
            house.fail(f"as {language} nothing is said when the result of {call} is ignored")

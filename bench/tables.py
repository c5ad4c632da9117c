# SPDX-License-Identifier: Apache-2.0
"""Tables of plain text, or of Markdown."""
import sys


def number(value, form="{:.0f}"):
    return "-" if value is None else form.format(value)


def ratio(value, peer, form="{:.2f}"):
    return "-" if value is None or not peer else form.format(value / peer)


def table(title, head, rows, markdown):
    print()
    if markdown:
        print(f"**{title}**\n\n| " + " | ".join(head) + " |")
        print("|---" + "|---:" * (len(head) - 1) + "|")
        for row in rows:
            print("| " + " | ".join(row) + " |")
    else:
        widths = [max(map(len, column)) for column in zip(head, *rows)]
        print(title)
        for row in [head, *rows]:
            cells = [cell.ljust(width) if i == 0 else cell.rjust(width)
                     for i, (cell, width) in enumerate(zip(row, widths))]
            print(("  " + "  ".join(cells)).rstrip())
    sys.stdout.flush()


def monitor_table(title, results, markdown):
    """Every monitor's figures, then those of zorva as ratios to each peer's."""
    head = ["", "CPU ms", "of it server", "RSS KiB", "server KiB", "bytes/s", "start ms",
            "slowest ms", "cycle ms"]
    rows = [[one.name, number(one.cpu_ms, "{:.2f}"), number(one.server_ms, "{:.2f}"),
             number(one.rss_kib), number(one.server_rss_kib), number(one.bytes_per_second),
             number(one.start_ms), number(one.slowest_start_ms), number(one.cycle_ms)]
            for one in results]
    for one in results:
        for peer in results:
            if one.ours and not peer.ours:
                rows.append([f"{one.name} : {peer.name}", ratio(one.cpu_ms, peer.cpu_ms, "{:.3f}"),
                             "", ratio(one.all_rss_kib, peer.rss_kib), "",
                             ratio(one.bytes_per_second, peer.bytes_per_second, "{:.3f}"),
                             ratio(one.start_ms, peer.start_ms), "", ""])
    table(title, head, rows, markdown)

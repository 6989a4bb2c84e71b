"""The results of a comparison as Markdown tables and as a plot."""
import re
import statistics
from html import escape


def spread(values, digits=2):
    return f"{statistics.median(values):.{digits}f} ({min(values):.{digits}f}–{max(values):.{digits}f})"


def table(head, rows):
    lines = [head, ["---"] + ["---:"] * (len(head) - 1), *rows]
    return "".join("| " + " | ".join(row) + " |\n" for row in lines) + "\n"


def publish(document, figures, text):
    """Puts TEXT between the document's comments that name these FIGURES."""
    between = re.compile(f"(?<=<!-- {figures} -->\n).*(?=<!-- end of {figures} -->)", re.S)
    document.write_text(between.sub(lambda _: text, document.read_text()))


def median(results, key):
    return statistics.median(result[key] for result in results)


def downloads(results, titles):
    """A table of the seconds and one of the processor seconds: a row for each program, a column for each load."""
    text = ""
    for caption, key, other in ("Seconds", "seconds", "bare loop"), ("Processor seconds", "processor", "curl"):
        rows = [[program, *(spread([result[key] for result in results[load][program]]) for load in titles)]
                for program in next(iter(results.values()))]
        rows.append([f"window ÷ {other}", *(f"{median(results[load]['window'], key) / median(results[load][other], key):.2f}"
                                            for load in titles)])
        text += f"**{caption}**\n\n" + table(["", *titles.values()], rows)
    delays = [by_program["window"][0].get("delayed_by") for by_program in results.values()]
    return text + "".join(f"The distance is a {delay}'s, and all five run at once there.\n\n" for delay in delays if delay)


def first_paint(rounds):
    rows = [[name, spread([pair[name]["milliseconds"] for pair in rounds], 0),
             f"{statistics.median(pair[name]['peak_kilobytes'] for pair in rounds) / 1000:.1f}"]
            for name in ("bare window", "window")]
    bare, ours = (statistics.median(pair[name]["milliseconds"] for pair in rounds) for name in ("bare window", "window"))
    return (f"**From the start of the process to the first paint**, {len(rounds)} pairs: {ours / bare:.2f} times\n\n" +
            table(["", "milliseconds", "resident MB"], rows))


def interface(by_load, titles):
    rows = []
    for load, pairs in by_load.items():
        for name, key in (("timer ticks", "tick"), ("mouse moves", "move")):
            for window in ("window", "bare window"):
                runs = [pair[window] for pair in pairs]
                rows.append([f"{titles[load]}: {name}, {window}", str(sum(run[f"{key}s"] for run in runs)),
                             spread([run[f"{key}_p99"] for run in runs], 1),
                             spread([run[f"{key}_worst"] for run in runs], 1)])
    head = ["", "handled", "99th percentile, ms late", "worst, ms late"]
    return "**The interface while the body is transferred** (the second screen is built before)\n\n" + table(head, rows)


def memory(peaks):
    return ("**Peak resident memory**: " +
            ", ".join(f"{peak / 1000:.1f} MB with a {name} body" for name, peak in peaks.items()) + "\n\n")


def markdown(results, titles, rounds, versions):
    """Tables of medians, with minimum and maximum in brackets."""
    text = f"Medians of {rounds} rounds, with minimum and maximum in brackets. {versions}.\n\n"
    titles = {name: title for name, title in titles.items() if name in results}
    text += downloads({name: results[name] for name in titles}, titles)
    return text + first_paint(results["first paint"]) + interface(results["interface"], titles) + memory(results["memory"])


def plot(results, titles):
    """Horizontal bars of the seconds, one group and scale for each load."""
    width, left, bar, gap = 720, 110, 16, 6
    scale = width - left - 150
    y, parts = 10, []
    for name, title in titles.items():
        if name not in results:
            continue
        y += 18
        parts.append(f'<text x="10" y="{y}" class="title">{escape(title)}</text>')
        y += 10
        most = max(result["seconds"] for runs in results[name].values() for result in runs)
        for program, runs in results[name].items():
            seconds = [result["seconds"] for result in runs]
            middle = statistics.median(seconds)
            least, longest, end = (left + scale * value / most for value in (min(seconds), max(seconds), middle))
            colour = "#0d80ba" if program == "window" else "#9aa7b0"
            parts += [f'<text x="{left - 8}" y="{y + 12}" text-anchor="end">{program}</text>',
                      f'<rect x="{left}" y="{y}" width="{end - left:.1f}" height="{bar}" fill="{colour}"/>',
                      f'<path d="M{least:.1f} {y + bar / 2}H{longest:.1f}" stroke="#222" stroke-width="2"/>',
                      f'<text x="{longest + 8:.1f}" y="{y + 12}">{middle:.2f} s</text>']
            y += bar + gap
        y += 6
    style = "text{font:12px sans-serif;fill:#222}.title{font-weight:bold}"
    return (f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{y}" viewBox="0 0 {width} {y}">'
            f'<style>{style}</style><rect width="100%" height="100%" fill="#fff"/>' + "\n".join(parts) + "</svg>\n")

#!/usr/bin/env python3
"""Compares docs/troubleshooting.md with the source: each message that a user can see has its row there,
and each row has its message.

    check_messages.py SOURCE-FOLDER PAGE

A message is every text that goes through tr() or translate(), and every other text that is given to the
log, a box, a result or the window's title, but those in NO_MESSAGES below. So a new text counts as a
message until somebody says that it is none. On the page the messages are the code in the first column of
the tables, with <names> in place of what the program fills in.
"""
import re
import sys
from pathlib import Path

# Why a text needs no row, and the texts of which that is true. One that left the source must leave this
# list too.
NO_MESSAGES = {
    "a control, a menu entry, a column or a title": """
        Add|Edit|Remove|Test|Sync Now|Stop|Auto|Job|Server|Mode|Schedule|Next run|Last result|Enabled
        Sync &All Jobs Now|&Stop|Switch to AUTO on launch|Close to the system tray
        Show FTP protocol chatter|E&xit|&Jobs|&Add...|&Edit...|D&uplicate|&Remove|&Test Connection
        Sync &Selected Now|&Help|Check for &Updates...|Check automatically on launch|&About %1|v%1
        Show window|Sync all jobs now|Quit|Synchronisation job|Job name:|Folders|Sync|Host:|Port:
        Username:|Password:|Security:|Timeout:|Use explicit FTPS (AUTH TLS)|Remote folder:|Local folder:
        Exclude:|Include sub-folders|Choose the local folder|What to transfer|Transfer:|Compare by:
        New and changed files|New files only (never overwrite)|Full sync (re-download everything)
        Size and timestamp|Size only|Timestamp only|Local housekeeping
        Delete local files that no longer exist on the server|Every|At set times|Add...|Edit...
        Days:|Hours:|All|None|Mon-Fri|Sat/Sun|06-18|Minutes past the hour:|Release notes
        Full release notes|Skip This Version|Remind Me Later|Download...|Update available|About %1
    """,
    "an example or an explanation beside a control": """
        e.g. 2YYY overnight archive|ftp.example.com|*.tmp; cache*; .htaccess|0 or 0, 30 or 55
        Passwords are stored obfuscated, not encrypted.
        Semicolon separated wildcards, matched on the name.
        Turns the copy into a true mirror. A folder is only pruned when its remote listing succeeded, so a dropped connection cannot wipe your local files. Excluded names are never deleted.
        Add more than one schedule to cover different parts of the week from a single job, for example hourly Monday to Friday plus a twice-daily pull at the weekend. The job runs whenever any of its schedules is due.
        Files already present locally are never touched, even if the server copy changed. Useful for archives you edit locally.
        Every remote file is downloaded again on every run, regardless of local state. Slow and bandwidth hungry; use it to repair a local copy you no longer trust.
        Downloads files that are missing locally or that differ from the server copy. This is the normal choice.
        Include this job when AUTO is on|%1 -> %2
    """,
    "for screen readers": """
        Status panel|Jobs|Log|Enable %1|Job settings|Minutes between runs|Schedules
        AUTO is on.|AUTO is off.|Started by hand.|Running: %1.|Job: %1.|File: %1.|Next run: %1.
        Last run: %1, %2.|No last run.|Offline.|Connecting.|Connecting to %1.|Connected.|Connected to %1.
        Transferring.|Transferring from %1.|Error.|Error: %1.
    """,
    "a part of a longer text": """
        job|jobs|schedule|schedules|run|runs|minute|minutes|seconds|+%1 more|Next:
        Mon|Tue|Wed|Thu|Fri|Sat|Sun|Weekdays|Weekends
    """,
    "a schedule in words": """
        every hour at %1|Daily at %1|Every %1 day(s)|Every %1 hour(s)|Every %1 min|%1 (+%2 more %3)
        Runs every %1, measured from the end of the previous run.|%1, %2 per week at most.|%1 per week.
    """,
    "a name that a job is given": "New job|Job %1",
    "the program about itself": """
        Version %1|Copyright © 2026 Orrinvale
        Scheduled FTP mirroring and archive retrieval, part of the Orrinvale suite.
    """,
    "never shown: a stopped run is logged as stopped, and a schedule without a run has a text of its own": """
        Stopped at your request.|Nothing selected, so this job will never fire.
    """,
    "in a box that no menu opens": """
        Update endpoint|Where %1 checks for updates. Leave blank to restore the default.
        Update endpoint set to %1.
    """,
}

LITERAL = r'"(?:[^"\\]|\\.)*"'
TRANSLATED = re.compile(rf'\b(?:tr\(|translate\(\s*{LITERAL}\s*,)\s*((?:{LITERAL}\s*)+)')
SHOWN = re.compile(
    r"\b(?:fail|failed|refuse|log|logMessage|appendLog|showMessage|setWindowTitle)\([^;]*;"
    r"|\b(?:message|error|errorText|reason)\s*=[^;=][^;]*;"
)
UNTRANSLATED = re.compile(rf"\b(?:u|QStringLiteral\()({LITERAL})")


def plain(text):
    """Without markup and with single blanks, as a user would search for it."""
    return " ".join(re.sub(r"</?[bi]>", "", text).split())


def unquoted(literals):
    text = "".join(part[1:-1] for part in re.findall(LITERAL, literals))
    return re.sub(r"\\(.)", lambda escape: {"n": "\n", "t": "\t"}.get(escape[1], escape[1]), text)


def source_texts(folder):
    """Text to the files that have it."""
    texts = {}
    for path in sorted(folder.rglob("*")):
        if path.suffix not in (".cpp", ".h"):
            continue
        code = path.read_text(encoding="utf-8")
        found = [unquoted(literals) for literals in TRANSLATED.findall(code)]
        for statement in SHOWN.findall(code):
            found += [
                text
                for text in map(unquoted, UNTRANSLATED.findall(statement))
                if re.search(r"[A-Za-z]{2}", text)
            ]
        for text in found:
            texts.setdefault(plain(text), set()).add(path.name)
    return texts


def page_rows(page):
    """The cells of all tables, without their headers."""
    rows = []
    for line in page.splitlines():
        if not line.startswith("|"):
            continue
        cells = [cell.strip() for cell in line.strip("|").split("|")]
        if set("".join(cells)) <= set("-: "):
            rows.pop()  # what stood above the dashes was the header
        else:
            rows.append(cells)
    return rows


def filled_in(message):
    """A message with the same mark for whatever the program puts in, on the page and in the source."""
    return re.sub(r"%\d|<[^<>]+>", "<>", message)


def main():
    texts = source_texts(Path(sys.argv[1]))
    excluded = {plain(text) for group in NO_MESSAGES.values() for text in re.split(r"[|\n]", group)} - {""}
    rows = page_rows(Path(sys.argv[2]).read_text(encoding="utf-8"))
    on_page = {filled_in(plain(code)) for row in rows for code in re.findall(r"`([^`]+)`", row[0])}
    messages = {filled_in(text): files for text, files in texts.items() if text not in excluded}

    problems = [f"{', '.join(sorted(messages[text]))}: no row for '{text}'" for text in messages.keys() - on_page]
    problems += [f"the page: '{text}' is not in the source" for text in on_page - messages.keys()]
    problems += [f"{Path(__file__).name}: '{text}' is not in the source" for text in excluded - texts.keys()]
    problems += [f"the page: an empty cell beside {row[0]}" for row in rows if len(row) != 3 or not all(row)]
    problems += [f"the page: no message in {row}" for row in rows if "`" not in row[0]]
    if len(messages) < 100:
        problems.append(f"only {len(messages)} messages found: has the way of writing them changed?")
    print("\n".join(sorted(problems)) or f"{len(messages)} messages, each with its row")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())

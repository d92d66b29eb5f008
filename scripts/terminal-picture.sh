#!/usr/bin/env bash
# terminal-picture.sh CAPTURE...: prints an SVG of what a terminal of 80 columns showed. Each capture is the recording of
# one command by script(1) without its first and last line; the command is its first line.
# With --text: the same text without colours.
set -euo pipefail

MODE=svg
[[ ${1:-} != --text ]] || { MODE=text && shift; }

# What erases a line or returns to its beginning replaces what stood there.
cat -- "$@" | sed -E 's/\r+$//; s/^.*\r//; s/^.*\x1b\[K//' | LC_ALL=C.UTF-8 awk -v mode="$MODE" '
    function escaped(text) { gsub(/&/, "\\&amp;", text); gsub(/</, "\\&lt;", text); gsub(/>/, "\\&gt;", text); return text }
    # put TEXT: into the present line, which is continued below after 80 columns.
    function put(text,   room, part) {
        while (text != "") {
            room = 80 - column
            if (room == 0) { rows++; column = 0; room = 80 }
            part = substr(text, 1, room)
            plain[rows] = plain[rows] part
            svg[rows] = svg[rows] (class == "" ? escaped(part) : "<tspan class=\"" class "\">" escaped(part) "</tspan>")
            column += length(part)
            text = substr(text, length(part) + 1)
        }
    }
    {
        rows++; column = 0; rest = $0
        if (rest ~ /^\$ /) class = "c"
        while (match(rest, /\033\[[0-9;]*m/)) {
            put(substr(rest, 1, RSTART - 1))
            code = substr(rest, RSTART + 2, RLENGTH - 3)
            class = code == "1" ? "b" : code == "31" ? "r" : code == "32" ? "g" : code == "33" ? "y" : ""
            rest = substr(rest, RSTART + RLENGTH)
        }
        put(rest)
        if ($0 ~ /^\$ /) class = ""
    }
    END {
        while (rows > 0 && plain[rows] == "") rows--
        if (mode == "text") { for (i = 1; i <= rows; i++) print plain[i]; exit }
        height = rows * 18 + 28
        printf "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"720\" height=\"%d\" viewBox=\"0 0 720 %d\" role=\"img\">\n", height, height
        print "<title>A terminal: a site is protected, attacked, and restored</title>"
        print "<style>text{font:14px DejaVu Sans Mono,Menlo,Consolas,monospace;fill:#d8dee4;white-space:pre}" \
              ".b{font-weight:bold;fill:#fff}.c{fill:#79c0ff}.g{fill:#56d364}.r{fill:#ff7b72}.y{fill:#e3b341}</style>"
        printf "<rect width=\"720\" height=\"%d\" rx=\"6\" fill=\"#161b22\"/>\n", height
        for (i = 1; i <= rows; i++)
            if (plain[i] != "") printf "<text x=\"20\" y=\"%d\" xml:space=\"preserve\">%s</text>\n", i * 18 + 14, svg[i]
        print "</svg>"
    }'

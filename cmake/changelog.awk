# Writes CHANGELOG.md as Debian's policy has it. An entry there is headed "## VERSION (DATE)" and
# has paragraphs and items; variable `maintainer` is who signs them here.
function sign() { if (date) print "\n -- " maintainer "  " date "\n" }
/^## / {
  sign()
  day = $3
  gsub(/[()]/, "", day)
  command = "LC_ALL=C date --utc --rfc-email --date=" day
  command | getline date
  print "libzorvac (" $2 ") unstable; urgency=medium"
  next
}
date && NF { sub(/^- /, "  * ") || sub(/^ */, "    "); print }
date && !NF
END { sign() }

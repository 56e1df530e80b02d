# Writes CHANGELOG.md in the form of Debian's policy. An entry of CHANGELOG.md has the heading
# "## VERSION (DATE)", paragraphs and items. The variable `maintainer` is who signs the entries.
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

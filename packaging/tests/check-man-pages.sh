#!/bin/sh
# Each program's man page is there, is named after it, and mentions every
# long option its --help has.
# Usage: check-man-pages.sh MAN_DIR PROGRAM=COMMAND...
man_dir=$1
shift
failed=0
for entry in "$@"; do
  program=${entry%%=*} command=${entry#*=}
  page=$man_dir/$program.1.gz
  # The page's text with groff's escapes for '-' and fonts taken out.
  text=$(gzip -dc "$page" | sed 's/\\-/-/g; s/\\f[BIRP]//g; s/\\f(CW//g') || { echo "$page: unreadable"; failed=1; continue; }
  printf '%s\n' "$text" | grep -q "^$program - " || { echo "$page: no NAME line for $program"; failed=1; }
  options=$(timeout 30 "$command" --help | grep -- '^[[:space:]]*-' | grep -o -- '--[a-z0-9][a-z0-9-]*' | sort -u)
  [ -n "$options" ] || { echo "$program --help lists no options"; failed=1; }
  for option in $options; do
    printf '%s\n' "$text" | grep -q -- "$option\\b" || { echo "$page: $option missing"; failed=1; }
  done
done
exit $failed

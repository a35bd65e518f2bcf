# Joins a usage synopsis wrapped over several lines into one "Usage:" line,
# the only form help2man turns into the SYNOPSIS section.
synopsis != "" && /^[ \t]+[^ \t]/ { sub(/^[ \t]+/, " "); synopsis = synopsis $0; next }
synopsis != "" { print synopsis; synopsis = "" }
NR == 1 && /^[Uu]sage: / { sub(/^usage:/, "Usage:"); synopsis = $0; next }
{ print }
END { if (synopsis != "") print synopsis }

# Sourced. apt_mirror prints the Debian archive this machine's apt already
# uses: the first "deb" source in /etc/apt/sources.list,
# /etc/apt/sources.list.d/*.list or the deb822 files
# /etc/apt/sources.list.d/*.sources ("URIs:"), leaving out security
# archives. No host is written into the repository: a build fetches from
# where the machine is allowed to. Fails, saying so, when there is none.
apt_mirror() {
  local files=() f uri
  [ -f /etc/apt/sources.list ] && files+=(/etc/apt/sources.list)
  for f in /etc/apt/sources.list.d/*.list; do [ -f "$f" ] && files+=("$f"); done
  # One-line format: deb [options] URI SUITE COMPONENTS...
  uri=$(cat "${files[@]}" /dev/null 2>/dev/null | sed -e 's/#.*//' -e 's/\[[^]]*\]//' |
    awk '$1 == "deb" && $3 !~ /-security|\/updates/ { print $2; exit }')
  if [ -z "$uri" ]; then
    for f in /etc/apt/sources.list.d/*.sources; do
      [ -f "$f" ] || continue
      # deb822: stanzas separated by blank lines; Types, URIs, Suites fields.
      uri=$(awk 'BEGIN { RS = ""; FS = "\n" }
        {
          types = ""; uris = ""; suites = ""
          for (i = 1; i <= NF; i++) {
            line = $i; sub(/#.*/, "", line)
            if (line ~ /^Types:/) types = line
            if (line ~ /^URIs:/) { uris = line; sub(/^URIs:[ \t]*/, "", uris) }
            if (line ~ /^Suites:/) suites = line
            if (line ~ /^Enabled:[ \t]*no/) types = ""
          }
          if (types ~ /[ \t]deb([ \t]|$)/ && suites !~ /-security/ && uris != "") {
            split(uris, u, /[ \t]+/); print u[1]; exit
          }
        }' "$f")
      [ -n "$uri" ] && break
    done
  fi
  if [ -z "$uri" ]; then
    echo "no Debian archive in this machine's apt sources (/etc/apt/sources.list," \
      "/etc/apt/sources.list.d/); name one in the override variable" >&2
    return 1
  fi
  echo "${uri%/}"
}

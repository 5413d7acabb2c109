#!/usr/bin/env bash
# apt-sources.sh [--backports] [CODENAME]
#
# Prints a sources list (one-line format, component main) for a private apt configuration,
# made from this machine's own apt sources: whichever archive and mirror the machine is set
# up for, so no archive host is written into the repository. Reads /etc/apt/sources.list,
# /etc/apt/sources.list.d/*.list and deb822 /etc/apt/sources.list.d/*.sources, and keeps the
# "deb" entries of CODENAME (default: this machine's, e.g. bookworm) and its -updates and
# -security suites. --backports adds CODENAME-backports on the archive of CODENAME itself.
# Exit 1 when the machine has no source for CODENAME.
set -euo pipefail
backports=
if [ "${1:-}" = --backports ]; then backports=1; shift; fi
codename=${1:-$(. /etc/os-release && echo "${VERSION_CODENAME:-bookworm}")}
etc=${APT_ETC_DIR:-/etc/apt}  # another apt directory, for trying this out
default_key=/usr/share/keyrings/debian-archive-keyring.gpg

# Every entry as "URI SUITE KEY", from either format.
entries() {
  local f
  for f in "$etc"/sources.list "$etc"/sources.list.d/*.list; do
    [ -f "$f" ] || continue
    awk -v key="$default_key" '
      $1 != "deb" { next }
      {
        k = key; i = 2
        if ($2 ~ /^\[/) {  # [opt=value ...] up to the closing bracket
          for (; i <= NF; i++) {
            o = $i; gsub(/[][]/, "", o)
            if (o ~ /^signed-by=/) k = substr(o, 11)
            if ($i ~ /\]$/) { i++; break }
          }
        }
        print $i, $(i + 1), k
      }' "$f"
  done
  for f in "$etc"/sources.list.d/*.sources; do
    [ -f "$f" ] || continue
    awk -v key="$default_key" '
      function flush(   i, j, nu, ns, u, s) {
        if (types ~ /(^| )deb( |$)/ && enabled != "no") {
          nu = split(uris, u, " "); ns = split(suites, s, " ")
          for (i = 1; i <= nu; i++) for (j = 1; j <= ns; j++) print u[i], s[j], (k != "" ? k : key)
        }
        types = uris = suites = k = enabled = ""
      }
      /^[ \t]*#/ { next }
      /^[ \t]*$/ { flush(); next }
      { field = tolower($1); $1 = ""; sub(/^ +/, "") }
      field == "types:" { types = $0 }
      field == "uris:" { uris = $0 }
      field == "suites:" { suites = $0 }
      field == "signed-by:" { k = $0 }
      field == "enabled:" { enabled = tolower($0) }
      END { flush() }' "$f"
  done
}

found='' main_uri='' main_key=''
while read -r uri suite key; do
  case "$suite" in
    "$codename"|"$codename"-updates|"$codename"-security|"$codename"/updates) ;;
    *) continue ;;
  esac
  # An inline (armored) key cannot go on one line: fall back to the archive keyring.
  [ -f "$key" ] || key=$default_key
  echo "deb [signed-by=$key] $uri $suite main"
  found=1
  if [ "$suite" = "$codename" ] && [ -z "$main_uri" ]; then main_uri=$uri main_key=$key; fi
done < <(entries | awk '!seen[$1 " " $2]++')
[ -n "$found" ] || { echo "apt-sources: no apt source for $codename on this machine" >&2; exit 1; }
if [ -n "$backports" ]; then
  [ -n "$main_uri" ] || { echo "apt-sources: no $codename archive to take backports from" >&2; exit 1; }
  echo "deb [signed-by=$main_key] $main_uri $codename-backports main"
fi

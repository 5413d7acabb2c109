# shellcheck shell=bash
# Sourced. armhf_apt DIR ARCHIVES [--backports]: a private apt configuration for Debian's
# armhf packages in DIR, its own state (nothing counts as installed, so apt resolves every
# dependency from scratch), lists and lock, downloads in ARCHIVES, and sources taken from
# this machine's own (scripts/apt-sources.sh; --backports adds the backports suite).
# Exports APT_CONFIG; the machine's apt and dpkg state never see the armhf architecture.
armhf_apt() {
  local dir=$1 archives=$2 sources_args=()
  [ "${3:-}" = --backports ] && sources_args=(--backports)
  mkdir -p "$dir"/etc/apt/{apt.conf.d,preferences.d,sources.list.d} "$dir"/lists/partial "$dir"/state \
           "$dir"/cache "$archives"/partial
  : > "$dir/state/status"
  cat > "$dir/apt.conf" <<CONF
Dir "$dir/";
Dir::Etc "$dir/etc/apt/";
Dir::State "$dir/state/";
Dir::State::Lists "$dir/lists/";
Dir::State::status "$dir/state/status";
Dir::Cache "$dir/cache/";
Dir::Cache::Archives "$archives/";
Dir::Etc::Trusted "/etc/apt/trusted.gpg";
Dir::Etc::TrustedParts "/etc/apt/trusted.gpg.d/";
APT::Architecture "armhf";
APT::Architectures { "armhf"; };
APT::Install-Recommends "false";
Acquire::Languages "none";
APT::Sandbox::User "$(id -un)";
CONF
  # (The sandbox user is ours: apt's _apt user cannot write these directories.)
  bash "$(dirname "${BASH_SOURCE[0]}")/../apt-sources.sh" "${sources_args[@]}" > "$dir/etc/apt/sources.list"
  export APT_CONFIG=$dir/apt.conf
}

# Sourced by ./run, ./test and the scripts that ask apt and dpkg. What programs say is read, so it is in
# one language; and root by a plain su has no sbin in its PATH, without which dpkg does nothing.
# shellcheck shell=bash
. "$(dirname "${BASH_SOURCE[0]}")/usage.bash"
export LC_ALL=C.UTF-8
unset LANGUAGE
export PATH=$PATH:/usr/local/sbin:/usr/sbin:/sbin

# need_sudo: ends a script that some user runs who cannot become root.
need_sudo() {
  ((EUID == 0)) || command -v sudo >/dev/null || {
    echo "${0##*/}: not root, and there is no sudo" >&2
    exit 1
  }
}

# private_ccache DIRECTORY: where ccache cannot write into its own place, it has this one.
private_ccache() {
  local place
  command -v ccache >/dev/null || return 0
  place=$(ccache --get-config cache_dir)
  if ! mkdir -p "$place" 2>/dev/null || [[ ! -w $place ]]; then
    export CCACHE_DIR=$1
  fi
}

# apt_setting NAME: of apt's configuration, empty when it is not set.
apt_setting() {
  local value=
  eval "$(apt-config shell value "$1")" # apt-config quotes for the shell
  printf '%s' "$value"
}

# debian_mirror SUITE: where this machine's apt gets that suite from, or else its own one: a mirror has
# them all. Debian's where neither is known.
debian_mirror() {
  local found
  # shellcheck disable=SC2016
  found=$(apt-get indextargets --format '$(RELEASE) $(ORIGIN) $(COMPONENT) $(REPO_URI)' \
    'Created-By: Packages' 2>/dev/null | awk -v suite="$1" '
    $3 != "main" || $4 !~ /^(https?|file):/ { next }
    $1 == suite && own == "" { own = $4 }
    $2 == "Debian" && $1 !~ /security/ && $4 !~ /security/ && other == "" { other = $4 }
    END { print own != "" ? own : other }') || :
  printf '%s' "${found:-http://deb.debian.org/debian}"
}

# export_proxies: apt's own, for debootstrap.
export_proxies() {
  local scheme proxy
  for scheme in http https; do
    proxy=$(apt_setting "Acquire::$scheme::Proxy")
    [[ -z $proxy || $proxy == DIRECT ]] || export "${scheme}_proxy=$proxy"
  done
}

# shellcheck shell=bash
# shellcheck disable=SC2154  # root is set by who sources this
# shellcheck disable=SC2034  # not everybody uses all of them
# What ./run, ./test, ./bench and .ci/run have in common: messages, usage, packages, the build, the sandbox. To be
# sourced, with $root set.

bold='' plain='' red='' green='' dim=''
if [ -t 1 ] && [ -z "${NO_COLOR-}" ]; then
  bold=$'\e[1m' plain=$'\e[0m' red=$'\e[31m' green=$'\e[32m' dim=$'\e[2m'
fi

say() { printf '%s==> %s%s\n' "$bold" "$*" "$plain"; }

complain() { printf '%s%s: %s%s\n' "$red" "${0##*/}" "$*" "$plain" >&2; }

fail() {
  complain "$@"
  exit 1
}

# The comment at the start of the script that runs.
script=$(realpath "$0")
usage() { sed -n '2,/^set/ { /^#/ s/^# \{0,1\}//p }' "$script"; }

# wrong_usage WHAT: says what was wrong, then how it is right.
wrong_usage() {
  complain "$@"
  usage >&2
  exit 2
}

# A program that runs at the moment may take Ctrl-C for its own, and end as if nothing were.
# number_of WHAT NUMBER...: the number, given as the only argument.
number_of() {
  [ $# -le 2 ] || wrong_usage "nothing may follow the number of $1, not '${*:3}'"
  case ${2-} in
    '' | *[!0-9]* | 0*) wrong_usage "this is no number of $1: '${2-}'" ;;
    *) echo "$2" ;;
  esac
}

on_interrupt='complain "ended by Ctrl-C"; exit 130'
# shellcheck disable=SC2064
trap "$on_interrupt" INT

# wait_for_turn FILE WHAT: takes the lock of a file, where two of this checkout would be in each other's way. It is held
# until the descriptor $turn is closed.
wait_for_turn() {
  exec {turn}>"$1" || fail "can't write $1; remove it or run this as its owner"
  if ! flock --nonblock "$turn"; then
    say "Another $2 is at work in this checkout: waiting for its end"
    flock "$turn"
  fi
}

# ---------- Packages ----------

architecture=''  # of other devices than this machine, for which is built; lists of packages say ARCH for it

# list_packages FILE: the packages that a list names, one a line.
list_packages() {
  sed -e 's/#.*//' -e 's/[[:space:]]//g' -e '/^$/d' -e "s/\<ARCH\>/$architecture/" "$1" |
    grep -vx 'libvectorscan-dev:armhf'  # there is none
}

# is_installed PACKAGE[:ARCH]: for this machine's programs where no architecture is named.
is_installed() {
  local wanted=${1#*:}
  [ "$wanted" != "$1" ] || wanted=$(dpkg --print-architecture)
  # shellcheck disable=SC2016 # dpkg-query expands it
  dpkg-query -W -f '${Architecture} ${db:Status-Status}\n' "$1" 2>/dev/null |
    grep -Ex "(all|$wanted) installed" >/dev/null
}

# package_servers: the hosts and ports that apt fetches from. Nothing where it may know another way: a proxy or a disk.
package_servers() {
  local site host
  [ -z "${http_proxy-}${https_proxy-}" ] || return 0
  ! apt-config dump | grep '^Acquire::.*Proxy.* "[^"]' >/dev/null || return 0
  # shellcheck disable=SC2016 # apt-get expands it
  apt-get indextargets --format '$(SITE)' | sort -u | while read -r site; do
    host=${site#*://}
    host=${host%%/*}
    case $site in
      *@*) ;;
      http://*:* | https://*:*) echo "${host%:*} ${host##*:}" ;;
      http://*) echo "$host 80" ;;
      https://*) echo "$host 443" ;;
    esac
  done | sort -u
}

# check_package_servers PACKAGE...: apt-get would try for long, and say at length, what this says in one line.
check_package_servers() {
  local servers host port
  servers=$(package_servers)
  [ -n "$servers" ] || return 0
  while read -r host port; do
    # shellcheck disable=SC2016 # the inner shell expands them
    timeout 5 bash -c ': >"/dev/tcp/$0/$1"' "$host" "$port" 2>/dev/null && return
  done <<<"$servers"
  fail "no package server can be reached (${servers//$'\n'/, }), is this machine off line? Missing packages: $*"
}

# unpack LOG COMMAND...: to its end also if Ctrl-C comes, since a half-installed package would need repair. The command has
# to leave the terminal's session by itself: apt-get listens to Ctrl-C even where it was told to ignore it.
unpack() {
  local log=$1 apt status interrupted=false
  shift
  trap 'interrupted=true; complain "ending when the packages are unpacked (up to some minutes), so that none stays half installed"' INT
  (trap '' INT && exec "$@") >>"$log" 2>&1 </dev/null &
  apt=$!
  wait "$apt"
  status=$?
  while $interrupted && [ -e "/proc/$apt" ]; do wait "$apt"; done
  # shellcheck disable=SC2064
  trap "$on_interrupt" INT
  ! $interrupted || kill -INT $$
  return "$status"
}

# install_packages FILE...: installs what is missing of the listed Debian packages. Where nothing is missing
# neither apt nor any privilege is needed.
install_packages() {
  local file package log=$root/build/packages.log missing=() install as_root=() apt=(env DEBIAN_FRONTEND=noninteractive apt-get -q -y)
  command -v dpkg-query >/dev/null ||
    fail "this is no Debian system (there is no dpkg-query). Install what $* lists by hand and build with CMake."
  for file in "$@"; do
    while read -r package; do
      is_installed "$package" || missing+=("$package")
    done < <(list_packages "$file")
  done
  if [ ${#missing[@]} -eq 0 ]; then
    say "Packages: all there"
    return
  fi
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || fail "packages are missing, and only root may install them (there is no sudo here)." \
      "As root: ${architecture:+dpkg --add-architecture $architecture && }apt-get update &&" \
      "apt-get install --no-install-recommends ${missing[*]}"
    as_root=(sudo)
  fi
  check_package_servers "${missing[@]}"
  mkdir -p "${log%/*}" || fail "can't make ${log%/*}"
  say "Packages: installing ${#missing[@]} (some minutes; apt-get's output goes to $log):"
  echo "    ${missing[*]}"
  if [ -n "$architecture" ] && ! dpkg --print-foreign-architectures | grep -qx "$architecture"; then
    "${as_root[@]}" dpkg --add-architecture "$architecture" || fail "dpkg can't take packages for $architecture"
  fi
  install=(install --no-install-recommends "${missing[@]}")
  if ! "${as_root[@]}" "${apt[@]}" update >"$log" 2>&1 ||
    ! "${as_root[@]}" "${apt[@]}" --download-only "${install[@]}" >>"$log" 2>&1 ||
    ! unpack "$log" "${as_root[@]}" setsid --wait "${apt[@]}" "${install[@]}"; then
    sed -n -e 's/^E: /    /p' -e 's/^sudo: /    &/p' "$log" >&2
    fail "apt-get could not install ${missing[*]}; all its messages are in $log"
  fi
}

# ---------- Build ----------

# configure_once PRESET: and again what has changed of the build's description.
configure_once() {
  if [ ! -f "$root/build/$1/build.ninja" ]; then
    say "Configuring build/$1 (some seconds)"
    (cd "$root" && cmake --preset "$1")
  else
    cmake --build "$root/build/$1" --target build.ninja >"$root/build/$1/configure.log" ||
      { cat "$root/build/$1/configure.log"; false; }
  fi || fail "CMake could not configure the build; its messages are above"
}

# in_turn COMMAND...: while nobody else builds in this checkout.
in_turn() {
  mkdir -p "$root/build" || fail "can't make $root/build"
  wait_for_turn "$root/build/.lock" build
  "$@"
  exec {turn}>&-
}

compile() {
  local preset=$1
  shift
  say "Building build/$preset${1:+: $*} (the first time takes some minutes)"
  (cd "$root" && cmake --build --preset "$preset" ${1:+--target "$@"}) ||
    fail "the build failed; its messages are above"
}

# configure PRESET: once, and again what has changed of the build's description.
configure() { in_turn configure_once "$1"; }

# build PRESET [TARGET...]: what has changed.
build() {
  [ -f "$root/build/$1/build.ninja" ] || configure "$1"
  in_turn compile "$@"
}

# ---------- Sandbox ----------

sandbox=''  # its first process, while there is one

# However the script ends, nothing of its sandbox is left by then.
end_sandbox() {
  local inside
  [ -n "$sandbox" ] || return 0
  inside=$(ps -o pid= --ppid "$sandbox" | tr -d ' ')
  # By SIGKILL: it leaves other signals to the processes inside, which end with it.
  kill -KILL "$sandbox"
  wait "$sandbox"
  # Process 1 of the namespace: it has ended when all of them have.
  while [ -n "$inside" ] && grep -q '^State:[[:space:]]*[^ZX]' "/proc/$inside/status"; do sleep 0.02; done
} 2>/dev/null
trap end_sandbox EXIT

# in_sandbox ARGUMENT...: tools/sandbox with these arguments.
in_sandbox() {
  local status
  trap 'exit 143' TERM
  trap 'exit 129' HUP
  setpriv --pdeathsig KILL "$root/tools/sandbox" "$@" &
  sandbox=$!
  wait "$sandbox"
  status=$?
  sandbox=''
  return "$status"
}

# shellcheck shell=bash disable=SC2034,SC2154 # colours for others; $root comes from them
# What ./run, ./test and .ci/run have in common: messages, packages, the build. To be sourced, with $root set.

bold='' plain='' red='' green='' dim=''
if [ -t 1 ] && [ -z "${NO_COLOR-}" ]; then
  bold=$'\e[1m' plain=$'\e[0m' red=$'\e[31m' green=$'\e[32m' dim=$'\e[2m'
fi

say() { printf '%s==> %s%s\n' "$bold" "$*" "$plain"; }

fail() {
  printf '%s%s: %s%s\n' "$red" "${0##*/}" "$*" "$plain" >&2
  exit 1
}

# list_packages FILE: the packages that a list names, one a line.
list_packages() { sed -e 's/#.*//' -e 's/[[:space:]]//g' -e '/^$/d' "$1"; }

# install_packages FILE...: installs what is missing of the listed Debian packages. Where nothing is missing
# neither apt nor any privilege is needed.
install_packages() {
  local file missing=() as_root=()
  command -v dpkg-query >/dev/null ||
    fail "this is no Debian system (there is no dpkg-query). Install what $* lists by hand and build with CMake."
  for file in "$@"; do
    local package
    while read -r package; do
      [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" = installed ] ||
        missing+=("$package")
    done < <(list_packages "$file")
  done
  if [ ${#missing[@]} -eq 0 ]; then
    say "Packages: all there"
    return
  fi
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || fail "packages are missing, and only root may install them" \
      "(there is no sudo here). As root: apt-get install ${missing[*]}"
    as_root=(sudo)
  fi
  say "Packages: installing ${missing[*]}"
  if ! "${as_root[@]}" apt-get update -q ||
    ! "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -q -y --no-install-recommends \
      "${missing[@]}"; then
    fail "apt-get could not install ${missing[*]}; its messages are above"
  fi
}

# build PRESET [TARGET...]: configures once, and builds what has changed.
build() {
  local preset=$1
  shift
  if [ ! -f "$root/build/$preset/build.ninja" ]; then
    say "Configuring build/$preset"
    (cd "$root" && cmake --preset "$preset") || fail "CMake could not configure the build; its messages are above"
  fi
  say "Building build/$preset (the first time takes some minutes)"
  (cd "$root" && cmake --build --preset "$preset" ${1:+--target "$@"}) ||
    fail "the build failed; its messages are above"
}

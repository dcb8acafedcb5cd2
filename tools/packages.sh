# Installs the Debian packages named as arguments that this machine lacks.
# Sourced by the scripts that build the project (check.sh, run.sh).
install_missing_packages() {
  local missing=() p
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "== installing: ${missing[*]}"
  local sudo=""
  [ "$(id -u)" = 0 ] || sudo=sudo
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}" >/dev/null
}

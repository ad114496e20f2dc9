# Helpers the dependency set-up scripts share: timed steps, stamps, quiet logged commands and
# Debian source packages. Sourced; the caller sets LOG_TAG, PREFIX, WORK, LOGS, STAMPS, CODENAME
# KEEP_BUILD and APT_PKGS first.
T_START=$EPOCHREALTIME
REPORT=()
log() { printf '[%s] %s\n' "$LOG_TAG" "$*" >&2; }
die() { log "ERROR: $*"; exit 1; }
step() {  # step NAME FUNCTION: run and time one step
  local name=$1 s=$EPOCHREALTIME; shift
  log "== $name"
  "$@"
  REPORT+=("$(awk -v n="$name" -v a="$s" -v b="$EPOCHREALTIME" 'BEGIN{printf "%-16s %8.1f s", n, b-a}')")
}
stamp_ok()  { [[ -f $STAMPS/$1 && "$(<"$STAMPS/$1")" == "$2" ]]; }
stamp_set() { mkdir -p "$STAMPS"; printf '%s' "$2" >"$STAMPS/$1"; }
run_logged() {  # run_logged LOGNAME CMD...: quiet unless it fails
  local lf=$LOGS/$1.log; shift
  if ! "$@" >"$lf" 2>&1 9>&-; then   # fd 9 = this script's lock; daemons must not keep it
    tail -n 60 "$lf" >&2; die "step failed, full log: $lf"
  fi
}
as_root() { if [[ $EUID -eq 0 ]]; then "$@"; else sudo "$@"; fi; }
install_apt_packages() {  # the APT_PKGS array, those not installed yet
  local p missing=()
  for p in "${APT_PKGS[@]}"; do
    [[ "$(dpkg-query -W -f='${db:Status-Status}' "$p" 2>/dev/null)" == installed ]] || missing+=("$p")
  done
  if ((${#missing[@]})); then
    log "installing: ${missing[*]}"
    as_root apt-get update -qq
    as_root apt-get install -y -qq --no-install-recommends "${missing[@]}" >"$LOGS/apt-install.log" 2>&1 \
      || { tail -n 40 "$LOGS/apt-install.log" >&2; die "apt-get install failed"; }
  fi
}


# Source packages come through a private apt configuration that mirrors the machine's own
# `deb` entries as `deb-src` (no archive host is named here). The system's lists stay untouched.
APT_SRC=(-o Dir::Etc::SourceList=/dev/null -o "Dir::Etc::SourceParts=$WORK/apt/sources.list.d"
         -o "Dir::State::Lists=$WORK/apt/lists" -o "Dir::Cache=$WORK/apt/cache" -o APT::Sandbox::User=root)
src_lists_ready=0
setup_src_lists() {
  ((src_lists_ready)) && return 0
  local d=$WORK/apt f
  rm -rf "$d/sources.list.d"; mkdir -p "$d/sources.list.d" "$d/lists/partial" "$d/cache/archives/partial"
  for f in /etc/apt/sources.list.d/*.sources; do
    [[ -f $f ]] && sed -E 's/^Types:.*/Types: deb-src/' "$f" >"$d/sources.list.d/$(basename "$f")"
  done
  for f in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
    [[ -f $f ]] && sed -nE 's/^[[:space:]]*deb[[:space:]]+/deb-src /p' "$f"
  done >"$d/sources.list.d/from-lists.list"
  run_logged apt-src-update apt-get "${APT_SRC[@]}" update
  src_lists_ready=1
}
fetch_src() {  # fetch_src PKG: download (not build) a Debian source package into $WORK/src/PKG
  local pkg=$1 dir=$WORK/src/$1 candidate
  compgen -G "$dir/*.dsc" >/dev/null && return 0
  setup_src_lists
  # Newest version first; if a pocket lacks some files (seen: security pocket 404 on .dsc),
  # fall back to the release pocket's version.
  for candidate in "$pkg" "$pkg/$CODENAME"; do
    rm -rf "$dir.part"; mkdir -p "$dir.part"
    if (cd "$dir.part" && apt-get "${APT_SRC[@]}" source --download-only "$candidate") >"$LOGS/src-$pkg.log" 2>&1; then
      rm -rf "$dir"; mv "$dir.part" "$dir"; return 0
    fi
    log "note: 'apt-get source $candidate' failed; trying the next candidate"
  done
  tail -n 20 "$LOGS/src-$pkg.log" >&2; die "cannot download source package $pkg"
}
dsc_of() { compgen -G "$WORK/src/$1/*.dsc" | sort -V | tail -n1; }
unpack() {  # unpack PKG DEST
  rm -rf "$2"
  run_logged "unpack-$1" dpkg-source --no-copy -x "$(dsc_of "$1")" "$2"
}
cleanup_tree() { [[ $KEEP_BUILD == 1 ]] || rm -rf "$@"; }

#!/usr/bin/env bash
# The files the install rules take from the build folder:
#   install_files_test.sh SOURCE_DIR BUILD_DIR TAVRIN TAVRIND
# every command of `tavrin help` has its section in tavrin(1), with the
# command's summary; every option of `tavrind --help` is in tavrind(8); the
# pages format without warnings; the desktop entry validates; the bash
# completion completes commands, options and choices from the program's help;
# the systemd units installed for the prefix /usr pass systemd-analyze verify
# (when it is there).
set -euo pipefail
src=$1 build=$2 tavrin=$3 tavrind=$4
fail() { echo "FAIL: $*" >&2; exit 1; }
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
man=$build/share/man

for page in man1/tavrin.1 man1/zentiq.1 man8/tavrind.8; do
  [[ -s $man/$page && -s $man/$page.gz ]] || fail "man page $page was not generated"
  if command -v groff >/dev/null; then
    warnings=$(groff -man -ww -z "$man/$page" 2>&1) || fail "groff failed on $page"
    [[ -z $warnings ]] || fail "groff warns on $page: $warnings"
  fi
done

help=$("$tavrin" help)
mapfile -t commands < <(sed -n 's/^  \([a-z][a-z]*\)  .*/\1/p' <<<"$help")
((${#commands[@]} >= 7)) || fail "'tavrin help' lists only: ${commands[*]}"
for c in "${commands[@]}"; do
  section=$(sed -n "/^\.SS \"tavrin $c[ \"]/,/^\.fi/p" "$man/man1/tavrin.1")
  [[ -n $section ]] || fail "tavrin(1) has no section for the command $c"
  summary=$(sed -n "s/^  $c  *//p" <<<"$help")
  grep -qF "$summary." <<<"$section" || fail "tavrin(1) lacks the summary of $c: $summary"
done

mapfile -t options < <("$tavrind" --help | grep -oE -- '--[a-z][a-z-]*' | sort -u)
((${#options[@]} >= 6)) || fail "'tavrind --help' lists only: ${options[*]}"
for o in "${options[@]}"; do
  grep -qF -- "${o//-/\\-}" "$man/man8/tavrind.8" || fail "tavrind(8) lacks the option $o"
done

if command -v desktop-file-validate >/dev/null; then
  desktop-file-validate "$src/packaging/zentiq.desktop" || fail "zentiq.desktop does not validate"
else
  echo "desktop-file-validate not found (package desktop-file-utils): entry not validated"
fi

# The completion, with the program named by its path as a user may type it.
complete_words() {
  bash -c 'source "$1"; shift; compopt() { :; }
           COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _tavrin; echo "${COMPREPLY[*]}"' \
    _ "$src/packaging/tavrin.bash-completion" "$tavrin" "$@"
}
[[ $(complete_words "") == "${commands[*]}" ]] || fail "completion of commands: $(complete_words "")"
[[ $(complete_words sql --format "") == "table csv tsv" ]] || fail "completion of --format"
[[ " $(complete_words sql -) " == *" -db "* ]] || fail "completion of the options of sql"
[[ $(complete_words table "") == "save load" ]] || fail "completion of table save|load"
[[ $(complete_words help pi) == ping ]] || fail "completion after help"
# The server's files as a package installs them, into a scratch root.
root=$tmp/root
DESTDIR=$root cmake --install "$build" --prefix /usr --component server >/dev/null
[[ -f $root/etc/default/tavrind ]] || fail "no /etc/default/tavrind for the prefix /usr"
[[ -f $root/etc/profile.d/tavrin.sh ]] || fail "no /etc/profile.d/tavrin.sh for the prefix /usr"
grep -qx "ExecStart=/usr/bin/tavrind --data /var/lib/tavrind --group tavrin --no-demo \$TAVRIND_OPTIONS" \
  "$root/usr/lib/systemd/system/tavrind.service" || fail "ExecStart of tavrind.service"
if command -v systemd-analyze >/dev/null; then
  # Verified with the paths pointing into the scratch root, so that the
  # program the unit starts exists.
  mkdir "$tmp/units"
  for unit in tavrind.service tavrind@.service; do
    sed "s#/usr/bin/#$root/usr/bin/#; s#=-/etc/#=-$root/etc/#" \
      "$root/usr/lib/systemd/system/$unit" >"$tmp/units/$unit"
  done
  out=$(systemd-analyze verify --man=no "$tmp/units/tavrind.service" \
    "$tmp/units/tavrind@demo.service" 2>&1) || fail "systemd-analyze verify: $out"
  [[ -z $out ]] || fail "systemd-analyze verify: $out"
else
  echo "systemd-analyze not found: units not verified"
fi
echo "install files ok"

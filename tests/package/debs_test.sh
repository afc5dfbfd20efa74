#!/usr/bin/env bash
# The Debian packages made from this build folder:
#   debs_test.sh SOURCE_DIR BUILD_DIR TAVRIN
# scripts/package --built makes zentiq, tavrin and tavrind in a temporary
# folder; the test checks their files, Depends and maintainer scripts, unpacks
# them into a scratch root (dpkg -x, nothing is installed on the machine), runs
# the unpacked `tavrin help` and `tavrind --help`, completes -db names from the
# unpacked server, and has the unpacked viewer write its manual from an empty
# folder, which takes the help texts from the unpacked share/zentiq.
set -euo pipefail
src=$1 build=$2 tavrin=$3
fail() { echo "FAIL: $*" >&2; exit 1; }
tmp=$(mktemp -d)
server=""
trap '[[ -n $server ]] && { kill "$server"; wait "$server" || true; }; rm -rf "$tmp"' EXIT

"$src/scripts/package" --built "$build" "$tmp/debs" >/dev/null
deb() { compgen -G "$tmp/debs/$1_*.deb" || fail "no package $1"; }
for p in zentiq tavrin tavrind; do deb $p >/dev/null; done

files=$(for d in "$tmp"/debs/*.deb; do dpkg-deb -c "$d"; done | awk '{print $6}' | sed 's#^\./#/#')
for want in /usr/bin/zentiq /usr/bin/tavrin /usr/bin/tavrind /usr/share/zentiq/zentiq.hlp \
  /usr/share/man/man1/tavrin.1.gz /usr/share/man/man1/zentiq.1.gz \
  /usr/share/man/man8/tavrind.8.gz /usr/share/applications/zentiq.desktop \
  /usr/share/icons/hicolor/scalable/apps/zentiq.svg /usr/share/bash-completion/completions/tavrin \
  /usr/lib/systemd/system/tavrind.service /usr/lib/systemd/system/tavrind@.service \
  /etc/default/tavrind /etc/profile.d/tavrin.sh; do
  grep -qxF "$want" <<<"$files" || fail "no package holds $want"
done

# Depends come from the linked libraries: the viewer needs Qt, the server
# SQLite, the client its line editor, and neither the client nor the server
# pulls in Qt.
depends() { dpkg-deb -f "$(deb "$1")" Depends; }
[[ $(depends zentiq) == *libqt6widgets6* ]] || fail "zentiq Depends: $(depends zentiq)"
[[ $(depends tavrind) == *libsqlite3-0* && $(depends tavrind) == *adduser* ]] ||
  fail "tavrind Depends: $(depends tavrind)"
[[ $(depends tavrin) != *qt6* && $(depends tavrind) != *qt6* ]] || fail "Qt in a Depends"
[[ $(depends tavrin) == *libedit2* ]] || fail "tavrin Depends (line editor): $(depends tavrin)"

# The server package makes its user, keeps the defaults file as a conffile and
# removes no data.
dpkg-deb -e "$(deb tavrind)" "$tmp/control"
grep -q 'adduser --system' "$tmp/control/postinst" || fail "postinst makes no system user"
grep -q 'addgroup --system --quiet tavrin$' "$tmp/control/postinst" || fail "postinst makes no client group"
[[ $(cat "$tmp/control/conffiles") == $'/etc/default/tavrind\n/etc/profile.d/tavrin.sh' ]] || fail "conffiles"
! grep -q 'rm ' "$tmp/control/postrm" || fail "postrm removes files"

root=$tmp/root
for d in "$tmp"/debs/*.deb; do dpkg -x "$d" "$root"; done
diff <("$tavrin" help) <("$root/usr/bin/tavrin" help) || fail "unpacked tavrin help differs"
"$root/usr/bin/tavrind" --help | grep -q -- '--data DIR' || fail "unpacked tavrind --help"

# The viewer and the server as unpacked, in a namespace of their own; the
# manual holds a heading that only the help file has.
export TAVRIN_NAMESPACE=zq_pkgtest_$$_
"$root/usr/bin/tavrind" --data "$tmp/data" 2>"$tmp/tavrind.log" &
server=$!
for ((i = 0; i < 600; i++)); do
  "$root/usr/bin/tavrin" ping -dbdemo >/dev/null 2>&1 && break
  kill -0 "$server" 2>/dev/null || fail "tavrind ended: $(cat "$tmp/tavrind.log")"
  sleep 0.1
done
# The unpacked bash completion offers the running server's databases.
names=$(bash -c 'source "$1"; compopt() { :; }
                 COMP_WORDS=("$2" sql -dbd); COMP_CWORD=2; _tavrin; echo "${COMPREPLY[*]}"' \
  _ "$root/usr/share/bash-completion/completions/tavrin" "$root/usr/bin/tavrin")
[[ $names == -dbdemo ]] || fail "completion of -db names: '$names'"

mkdir "$tmp/work"
(cd "$tmp/work" && QT_QPA_PLATFORM=offscreen ASAN_OPTIONS=detect_leaks=0 \
  "$root/usr/bin/zentiq" -dbdemo -doku >"$tmp/zentiq.log" 2>&1) ||
  fail "zentiq -doku: $(cat "$tmp/zentiq.log")"
grep -q '<h3>SELECT-Abfrage</h3>' "$tmp/work/zentiq_hlp.htm" ||
  fail "the unpacked viewer did not find its help file"

echo "packages ok: $(cd "$tmp/debs" && echo *.deb)"

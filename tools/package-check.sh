#!/usr/bin/env bash
# Proves the Debian packages where nothing of this machine helps them. See --help.
set -euo pipefail
cd "$(dirname "$0")/.."
# shellcheck source=tools/usage.sh
. tools/usage.sh

usage() {
    cat <<'TEXT'
Usage: tools/package-check.sh [--quick] [ARCHITECTURE...]

For each architecture, amd64 and i386 when none is named: makes clean Debian 12 roots, in the first
builds everything, runs all tests and builds the packages, twice, which must come out the same; looks
at them with lintian and hardening-check, and at where their pages lead to; in the second installs them as
README says, has cardcheck tell of missing rights, records on simulated cards as the service's user,
upgrades, removes, purges, and compares what is left. Looks at the service with systemd-analyze, and
at the licence with reuse.
Takes about 15 minutes an architecture, a network, and 4 GB under TMPDIR (/tmp); run it as root. It
says each step when it begins, and of one that fails the last lines.

  --quick         without the tests and the second build
  DEBIAN_MIRROR   where Debian comes from; debootstrap's own choice when not set

Exit status: 0 all of it went well, 1 something did not (the message says what), 2 wrong usage.
TEXT
}

quick=0
architectures=()
for argument in "$@"; do
    case $argument in
        --quick) quick=1 ;;
        amd64 | i386) architectures+=("$argument") ;;
        --help) show_help ;;
        *) wrong_usage "what is $argument?" ;;
    esac
done
((${#architectures[@]} > 0)) || architectures=(amd64 i386)

mirror=(${DEBIAN_MIRROR:+"$DEBIAN_MIRROR"})
unit=dspcard-record.service
work=
child=

fail() {
    printf 'package-check: FAILED: %s\n' "$1" >&2
    exit 1
}

say() { printf 'package-check: %4d s  %s\n' "$SECONDS" "$1"; }

# Ends what runs in the roots and takes the mounts away first: they must not be deleted through.
clean_up() {
    trap '' INT TERM HUP
    if [[ -n $child ]]; then
        kill -KILL -- "-$child" || true
        wait "$child" || true
    fi 2>/dev/null
    [[ -n $work ]] || return 0
    local folder
    while read -r folder; do
        umount --lazy "$folder" || true
    done < <(awk -v root="$work/" 'index($2, root) == 1 { print $2 }' /proc/mounts | sort -r)
    rm -rf --one-file-system "$work"
}
trap clean_up EXIT
trap 'exit 129' HUP
trap 'exit 130' INT
trap 'exit 143' TERM

# run WHAT COMMAND...: in a process group of its own, so that all of it can be ended at once.
run() {
    local what=$1
    shift
    say "$what"
    setsid "$@" </dev/null >"$work/log" 2>&1 &
    child=$!
    wait "$child" || {
        tail -n 40 "$work/log" >&2
        fail "$what"
    }
    child=
}

# The same in the root, with nothing of this environment but the way to the network.
inside() {
    local what=$1
    shift
    run "$what" "$personality" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C HOME=/root \
        DEBIAN_FRONTEND=noninteractive ${http_proxy:+http_proxy="$http_proxy"} chroot "$root" "$@"
}
shell() { inside "$1" sh -c "$2"; }
install() { inside "$1" apt-get install -y --no-install-recommends "${@:2}"; }

# expect WHAT TEXT: the last command said that.
expect() { grep -qE -- "$2" "$work/log" || fail "$1: not a word of '$2'"; }

# Every path of the root but the records and stores of dpkg and apt.
list_files() {
    (cd "$root" && find . -xdev \( -path ./proc -o -path ./dev -o -path ./tmp -o -path ./root \
        -o -path ./var/lib/dpkg -o -path ./var/lib/apt -o -path ./var/cache -o -path ./var/log/apt \
        -o -path './var/log/dpkg.log*' \) \
        -prune -o -print) | sort
}

# make_root NAME: a clean Debian 12, in $root.
make_root() {
    root=$work/$architecture-$1
    if [[ -d $work/$architecture-clean ]]; then
        cp -a "$work/$architecture-clean" "$root"
    else
        run "making a clean Debian 12, $architecture" debootstrap --variant=minbase \
            --arch="$architecture" bookworm "$work/$architecture-clean" "${mirror[@]}"
        cp -a "$work/$architecture-clean" "$root"
    fi
    mount -t proc proc "$root/proc"
    mount -t devpts -o newinstance,ptmxmode=0666 devpts "$root/dev/pts"
}

drop_root() {
    umount "$root/dev/pts" "$root/proc"
    rm -rf --one-file-system "$root"
}

build_packages() {
    make_root build
    git clone -q . "$root/src"
    install "git, for the sources" git ca-certificates
    shell "Git may look at the sources" 'git config --system --add safe.directory "*"'
    if ((quick == 0)); then
        shell "./test.sh: builds, and passes all tests" 'cd /src && ./test.sh'
        expect "tests" '^dspcard: all tests passed'
        say "  $(grep -E 'tests passed' "$work/log" | head -n 1)"
    fi
    shell "building the packages" 'cd /src && tools/package.sh /packages'
    if ((quick == 0)); then
        shell "building them again, elsewhere and in another zone" \
            'umask 077 && cp -a /src /elsewhere && cd /elsewhere && TZ=Asia/Tokyo tools/package.sh /again'
        (cd "$root" && sha256sum packages/*.{deb,tar.*}) | sed 's/^/  /'
        diff <(cd "$root/packages" && sha256sum -- *.{deb,dsc,tar.*}) \
            <(cd "$root/again" && sha256sum -- *.{deb,dsc,tar.*}) || fail "two builds differ"
    fi
    packages=$work/$architecture-packages
    mkdir "$packages"
    cp "$root"/packages/*.{deb,dsc,tar.*,changes,buildinfo} "$packages"
    drop_root
}

look_at_packages() {
    local program
    run "lintian, on the packages and their sources" lintian --allow-root -EvIL +pedantic \
        --show-overrides --fail-on none "$packages"/*.changes
    ! grep -E '^[EWIPX]: ' "$work/log" >&2 || fail "tags that no override answers"
    say "  lintian: no tag, but $(grep -c '^O: ' "$work/log") that are overridden, with the reason"
    rm "$packages"/*-dbgsym_*.deb
    mkdir "$packages/unpacked"
    for program in "$packages"/*.deb; do
        dpkg-deb -x "$program" "$packages/unpacked"
    done
    while read -r program; do
        # Debian 12's own start-up files are not marked as protected, so no program can be: what is
        # looked for is the code.
        run "hardening-check ${program#"$packages/unpacked"}" hardening-check --nocfprotection \
            "$program"
        [[ $architecture == i386 ]] || objdump -d "$program" >"$work/code"
        [[ $architecture == i386 ]] || grep -q endbr64 "$work/code" ||
            fail "no control-flow protection in $program"
    done < <(find "$packages/unpacked" -type f -exec file {} + | sed -n 's/: *ELF .*//p')
}

# look_at_pages: the pages and manuals that are installed speak of what is installed.
look_at_pages() {
    local folder=$packages/unpacked page target
    say "where links and paths of the installed pages lead"
    ! grep -rnE '(^|[^a-z/])((\.\./)?(build|tools)/|\.\./\.\./|\./[a-z]+\.sh|<!--)' --include='*.md' \
        "$folder/usr/share/doc" || fail "an installed page names paths of a checkout"
    while IFS=: read -r page target; do
        [[ -e ${page%/*}/$target ]] || fail "${page#"$folder"} leads to $target, which is not there"
    done < <(grep -roP --include='*.md' '\]\(\K(?!https?:)[^)#]+' "$folder/usr/share/doc")
    while IFS=: read -r page target; do
        compgen -G "$folder$target" >/dev/null || compgen -G "$folder${target#/usr}" >/dev/null ||
            fail "${page#"$folder"} names $target, which is not there"
    done < <(
        grep -roP --include='*.md' '/usr/(?!local/)[\w./*-]*\w' "$folder/usr/share/doc"
        for page in "$folder"/usr/share/man/man1/*; do
            zcat "$page" | sed 's/\\-/-/g' | grep -oP '/usr/(?!local/)[\w./*-]*\w' | sed "s#^#$page:#" ||
                true # a manual may name none
        done
    )
}

look_at_service() {
    local folder=$packages/unpacked
    mkdir -p "$work/units"
    sed "s#ExecStart=/usr#ExecStart=$folder/usr#" "$folder/lib/systemd/system/$unit" >"$work/units/$unit"
    run "systemd-analyze verify" systemd-analyze verify --man=no "$work/units/$unit"
    ! grep -v '^$' "$work/log" || fail "systemd-analyze has something to say"
    run "systemd-analyze security, at most 3.0" systemd-analyze security --offline=true \
        --threshold=30 "$work/units/$unit"
    say "  $(grep 'Overall exposure' "$work/log" | sed 's/^[^O]*//')"
}

# As the unit has it, but with what is named left out: each missing right shows by itself.
service_with() { # CAPABILITIES GROUPS COMMAND; GROUPS beside its own, as setpriv takes them
    printf "cd /etc/dspcard/firmware && setpriv --reuid dspcard --regid dspcard %s \
        --inh-caps=-all%s --ambient-caps=-all%s --bounding-set=-all%s --no-new-privs %s" \
        "$2" "$1" "$1" "$1" "$3"
}

# Devices as on a PC with cards, and something in the place of udev which does with them what the rule
# says, as long as there is one. There is nothing behind them here, so a device that may be opened says
# so, and port permission cannot be tried.
make_devices() {
    mkdir -p "$root/run/udev"
    touch "$root/run/udev/control"
    cat >"$root/usr/bin/udevadm" <<'TEXT'
#!/bin/sh
echo "udevadm $*" >>/tmp/udevadm
case $* in trigger*--subsystem-match=mem*) ;; *) exit 0 ;; esac
cd /dev && chown root:kmem mem port && chmod 0640 mem port
sed -n 's/^SUBSYSTEM=="mem", KERNEL=="\([^"]*\)", GROUP="\([^"]*\)", MODE="\([^"]*\)"$/\1 \2 \3/p' \
    /lib/udev/rules.d/60-dspcard.rules | while read -r devices group mode; do
    for device in $(echo "$devices" | tr '|' ' '); do chgrp "$group" "$device" && chmod "$mode" "$device"; done
done
TEXT
    chmod 755 "$root/usr/bin/udevadm"
    shell "devices as on a PC with cards" 'rm -f /dev/port /dev/mem && mknod -m 0640 /dev/port c 1 4 &&
        mknod -m 0640 /dev/mem c 1 1 && chown root:kmem /dev/port /dev/mem'
}

# expect_devices OWNERS MODE
expect_devices() {
    shell "whose the devices are" 'stat -c "%U:%G %a %n" /dev/port /dev/mem'
    [[ $(grep -c "^$1 $2 " "$work/log") == 2 ]] || fail "/dev/port and /dev/mem are not $1 $2"
}

check_rights() {
    local with=,+sys_rawio groups='--groups dspcard-ports' device program
    expect_devices root:dspcard-ports 660
    awk '/udevadm trigger/ { given = 1 } /deb-systemd-invoke/ { exit !given }' \
        "$root/var/lib/dpkg/info/dspcard.postinst" || fail "the service is started before it has the devices"
    grep -q '^SupplementaryGroups=dspcard-ports$' "$root/lib/systemd/system/$unit" ||
        fail "the service is not in the group of the devices"
    shell "cardcheck with the rights of the service" "$(service_with "$with" "$groups" 'cardcheck -v || true')"
    expect "cardcheck" '^PASS  privilege: user [0-9]+ with CAP_SYS_RAWIO'
    expect "the devices may be opened" '^(PASS  /dev/mem|FAIL  /dev/mem: the kernel has nothing behind)'
    expect "the devices may be opened" '^(PASS  /dev/port|FAIL  /dev/port: the kernel has nothing behind)'
    shell "without the capability" "$(service_with '' "$groups" 'cardcheck || true')"
    expect "cardcheck" '^FAIL  privilege: user [0-9]+ without CAP_SYS_RAWIO'
    shell "without the group of the devices" "$(service_with "$with" --clear-groups 'cardcheck || true')"
    for device in /dev/mem /dev/port; do
        expect "cardcheck" "^FAIL  $device: user [0-9]+ may not read and write it: it is root:dspcard-ports 0660"
    done
    # The real devices have nothing behind them here; such as can be opened stand where they stood.
    # shellcheck disable=SC2016 # for the shell inside
    shell "devices that can be opened" 'for device in /dev/mem /dev/port; do
        mknod $device.new c 1 5 && chown --reference=$device $device.new &&
        chmod --reference=$device $device.new && mv $device $device.real &&
        mv $device.new $device || exit 1; done'
    for program in "dspcard-bench" "dspcard-record --folder /tmp/no-cards --seconds 3"; do
        shell "$program with the rights of the service" "$(service_with "$with" "$groups" "timeout 12 $program || true")"
        expect "the devices are opened" '^Doing port test for board 0'
        ! grep "Couldn't access" "$work/log" >&2 || fail "$program cannot open the devices"
        shell "$program without the group" "$(service_with "$with" --clear-groups "timeout 12 $program || true")"
        expect "what is missing" "^Couldn't access /dev/mem"
        expect "what is missing" "^Couldn't access /dev/port errno=13"
    done
    shell "the real devices again" 'mv /dev/mem.real /dev/mem && mv /dev/port.real /dev/port'
    shell "as nobody" "setpriv --reuid nobody --regid nogroup --clear-groups cardcheck || true"
    expect "cardcheck" '^FAIL  privilege: user 65534 without CAP_SYS_RAWIO'
}

record_as_service() {
    shell "the settings for this check" 'printf "status=127.0.0.1:9273\nseconds=15\n" >>/etc/dspcard/recorder.conf
        cp /usr/share/dspcard/firmware/* /etc/dspcard/firmware
        install -d -o dspcard -g dspcard -m 0750 /var/lib/dspcard'
    shell "recording calls for 15 s, as the service's user" "umask 027; $(service_with ,+sys_rawio \
        '--groups dspcard-ports' "cardsim --cards 4,8 --traffic --seed 1 -- dspcard-record --config /etc/dspcard/recorder.conf")"
    shell "every call has its file, and every file its call" \
        'dspcard-calls check --folder /var/lib/dspcard/recordings && dspcard-calls --folder /var/lib/dspcard/recordings'
    say "  $(grep -c complete "$work/log") complete calls"
    expect "calls" complete
    shell "whoever is in group dspcard finds and reads them" 'setpriv --reuid nobody --regid nogroup \
        --groups dspcard sh -c "dspcard-calls --folder /var/lib/dspcard/recordings &&
            cat /var/lib/dspcard/recordings/*/*.raw >/dev/null"'
    expect "calls" complete
}

# upgrade_to VERSION: the same packages, newer.
upgrade_to() {
    local package name
    mkdir "$root/newer"
    for package in "$packages"/*.deb; do
        name=$(basename "$package")
        dpkg-deb -R "$package" "$work/newer"
        sed -i -E "s/\(= [^)]*\)/(= $1)/; s/^Version: .*/Version: $1/" "$work/newer/DEBIAN/control"
        dpkg-deb --root-owner-group -b "$work/newer" "$root/newer/$name" >/dev/null
        rm -rf "$work/newer"
    done
    shell "upgrading to $1" 'apt-get install -y --no-install-recommends /newer/*.deb </dev/null'
    rm -rf "$root/newer"
}

check_installed() {
    local needed package
    make_root target
    list_files >"$work/clean"
    mapfile -t needed < <(for package in "$packages"/*.deb; do dpkg-deb -f "$package" Depends; done |
        tr , '\n' | sed -nE 's/^ *([a-z0-9.+-]+).*/\1/p' | grep -v dspcard | sort -u)
    install "installing what the packages depend on, and a compiler for the client's page" \
        openjdk-17-jdk-headless util-linux systemd "${needed[@]}"
    make_devices
    list_files >"$work/before"
    mkdir -p "$root/tmp/build/package"
    cp "$packages"/*.deb "$root/tmp/build/package"
    shell "installing what a card PC needs, as README says" "cd /tmp && $(sed -nE \
        's#^sudo (apt-get install)( .*build/package/.*)#\1 -y --no-install-recommends\2#p' README.md)"
    [[ -x $root/usr/bin/dspcard-record && ! -e $root/usr/bin/cardsim ]] ||
        fail "README has the simulation installed, or no recorder"
    shell "installing all packages" 'apt-get install -y --no-install-recommends /tmp/build/package/*.deb'
    for page in "$root"/usr/bin/{card,dspcard-}*; do
        zgrep -q '^\.SH EXIT STATUS' "$root/usr/share/man/man1/${page##*/}.1.gz" ||
            fail "no man page with the exit status of ${page##*/}"
    done
    [[ -L $root/etc/systemd/system/multi-user.target.wants/$unit ]] || fail "the service is not enabled"
    check_rights
    shell "cardcheck on simulated cards" \
        'cd /usr/share/dspcard/firmware && cardsim --cards 4,8 -- cardcheck --reset-cards'
    expect "cardcheck" '^cardcheck: .* 0 failed'
    shell "the bench program" \
        'cd /usr/share/dspcard/firmware && cardsim --virtual-time --seconds 60 -- dspcard-bench'
    expect "the bench program" 'Transfer Count = 100'
    # shellcheck disable=SC2016 # backticks are Markdown
    shell "the commands of the page of traces" "$(sed -n '/^```sh$/,/^```$/p' \
        "$root/usr/share/doc/dspcard/docs/traces.md" | grep -vE '^(```|sudo)')"
    expect "the sample trace" 'compared with simulated cards made as those of the trace'
    expect "the sample trace" ', 0 deviations'
    shell "the commands of the client's page" "$(sed -n '/^With the packages/,/^Either/p' docs/client.md |
        grep -vE '^(```|sudo|[WE]|$)')"
    expect "the client's page" '^line [0-9]*: call since'
    record_as_service
    (cd "$root/var/lib/dspcard" && find . -type f | sort) >"$work/recorded"
    upgrade_to 99.0
    grep -q '^seconds=15$' "$root/etc/dspcard/recorder.conf" || fail "the upgrade changed the settings"
    inside "removing" apt-get remove -y dspcard dspcard-sim libdspcard-java libdspcard-java-doc
    [[ -f $root/etc/dspcard/recorder.conf ]] || fail "removed, and the settings are gone"
    expect_devices root:kmem 640
    inside "purging" dpkg --purge dspcard dspcard-sim libdspcard-java libdspcard-java-doc
    diff "$work/recorded" <(cd "$root/var/lib/dspcard" && find . -type f | sort) >&2 ||
        fail "purged, and the recordings are not what they were"
    [[ -f $root/etc/dspcard/firmware/LOAD_4CH.TXT ]] || fail "purged, and the firmware is gone"
    list_files | grep -vE '^\./(var/lib/dspcard|etc/dspcard/firmware|etc/dspcard$|etc/(passwd|group|shadow|gshadow)-?$|etc/\.pwd\.lock)' >"$work/after"
    grep -vE '^\./etc/((passwd|group|shadow|gshadow)-?|\.pwd\.lock)$' "$work/before" >"$work/before.kept"
    diff "$work/before.kept" "$work/after" >&2 || fail "purged, and the files are not what they were"
    drop_root
}

((EUID == 0)) || fail "debootstrap and chroot need root"
tools/install-missing.sh debootstrap binutils lintian devscripts systemd file reuse util-linux
work=$(mktemp -d "${TMPDIR:-/tmp}/package-check.XXXXXX")
chmod 755 "$work"

run "reuse lint" reuse lint
licence=$(readlink LICENSE) && licence=$(basename "$licence" .txt)
diff LICENSE <(awk -v RS= "/^License: $licence\n /" debian/copyright | sed '1d; s/^ //; s/^\.$//') >&2 ||
    fail "debian/copyright and LICENSE have not the same text"
for architecture in "${architectures[@]}"; do
    personality=$([[ $architecture == i386 ]] && echo linux32 || echo linux64)
    say "$architecture"
    build_packages
    look_at_packages
    look_at_pages
    look_at_service
    check_installed
done
say "all well: the packages build, install, record, and leave nothing behind but what was recorded"

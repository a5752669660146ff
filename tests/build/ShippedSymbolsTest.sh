#!/usr/bin/env bash
# The programs as they ship: each in build/bin and in each package carries no debug section and
# names, in its .gnu_debuglink, a symbol file beside it in build/bin whose CRC is the one recorded
# (so a symbol file from another build is refused); and a code address of the stripped Tarrow.exe
# still resolves to its source line through that link, as a crash address would.
#   ShippedSymbolsTest.sh <folder of the programs> [package.msi...]
set -u
bin=$(cd "$1" && pwd)
shift
prefix=x86_64-w64-mingw32-
failures=0
fail() {
    echo "FAIL: $*"
    failures=$((failures + 1))
}

# $1 the program; $2 what to call it in a failure.
check_program() {
    local program=$1 label=$2
    local sections
    sections=$("${prefix}objdump" -h "$program" | awk '$2 ~ /^\./ { print $2 }')
    if grep -q '^\.debug_' <<<"$sections"; then fail "$label carries debug sections: $(grep '^\.debug_' <<<"$sections" | tr '\n' ' ')"; fi
    if ! grep -qx '\.gnu_debuglink' <<<"$sections"; then
        fail "$label names no symbol file"
        return
    fi
    # The section: the file's name, NUL-padded to 4 bytes, then the CRC-32 of the file, little-endian.
    local link
    link=$("${prefix}objcopy" --dump-section .gnu_debuglink=/dev/stdout "$program" /dev/null 2>/dev/null | od -An -v -tx1 | tr -d ' \n')
    python3 - "$link" "$bin" "$label" <<'EOF' || failures=$((failures + 1))
import os, sys, zlib
raw, folder, label = bytes.fromhex(sys.argv[1]), sys.argv[2], sys.argv[3]
name = raw[: raw.index(0)].decode()
crc = int.from_bytes(raw[-4:], "little")
path = os.path.join(folder, name)
if not os.path.exists(path):
    sys.exit(f"FAIL: {label} names {name}, which is not beside it")
actual = zlib.crc32(open(path, "rb").read())
if actual != crc:
    sys.exit(f"FAIL: {label} names {name} with CRC {crc:08x}, the file's is {actual:08x}")
EOF
}

for program in Tarrow.exe tarrowctl.exe TarrowEvents.dll; do
    check_program "$bin/$program" "$program"
    # The symbol file holds what the program lost.
    if [[ $program == *.exe ]] && ! "${prefix}objdump" -h "$bin/$program.debug" | grep -q '\.debug_info'; then
        fail "$program.debug holds no debug information"
    fi
done

# A crash report gives the module's offset of the faulting instruction; added to the image base it
# is the address addr2line takes. wWinMain's own address stands for one here.
image_base=$("${prefix}objdump" -p "$bin/Tarrow.exe" | awk '$1 == "ImageBase" { print $2 }')
entry=$("${prefix}nm" "$bin/Tarrow.exe.debug" | awk '$3 == "wWinMain" { print $1 }')
if [[ -z $entry || -z $image_base ]]; then
    fail "no wWinMain in Tarrow.exe.debug or no image base in Tarrow.exe"
else
    offset=$(printf '%x' $((0x$entry - 0x$image_base)))
    where=$("${prefix}addr2line" -f -e "$bin/Tarrow.exe" "0x$entry")
    grep -q 'WinMain\.cpp:[0-9]' <<<"$where" || fail "offset 0x$offset of Tarrow.exe resolved to '$where', not to WinMain.cpp"
fi

for msi in "$@"; do
    out=$(mktemp -d)
    (cd "$out" && msiextract "$msi" >/dev/null) || fail "$(basename "$msi") could not be unpacked"
    for program in Tarrow.exe tarrowctl.exe TarrowEvents.dll; do
        found=$(find "$out" -name "$program" | head -1)
        if [[ -z $found ]]; then
            fail "$(basename "$msi") carries no $program"
            continue
        fi
        check_program "$found" "$program in $(basename "$msi")"
        cmp -s "$found" "$bin/$program" || fail "$program in $(basename "$msi") is not the program of this build"
    done
    if find "$out" -name '*.debug' | grep -q .; then fail "$(basename "$msi") carries symbol files"; fi
    rm -rf "$out"
done

((failures == 0)) && echo "shipped programs: stripped, their symbol files match"
((failures == 0))

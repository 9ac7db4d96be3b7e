#!/usr/bin/env bash
# Who may include what: include_rule.sh ROOT
#   - across subsystems only <kemsd/...> and "sd/base/..."; within one also its private headers, by full path;
#   - sd/base includes nothing of ours but <kemsd/...> and itself; public headers only each other;
#   - a name says its concern: nothing is called common, util, misc or internal;
#   - CMakeLists.txt lists every source once.
set -euo pipefail
export LC_ALL=C
cd "$1"
failures=0
wrong() {
    echo "$1"
    failures=$((failures + 1))
}

subsystemOf() {
    case $1 in
        sd/base/*) echo base ;;
        sd/sdctxlnx* | sd/sdcommon/* | misc/*) echo frame ;;
        sd/memheap/* | sd/memsys/* | sd/memxcpt* | sd/sdmemlnx/* | sd/ThreadAllocator*) echo memory ;;
        sd/sdsync* | sd/sdlwsync* | sd/sdrwlock* | sd/sdsemlnx/* | sd/sdeventposix*) echo sync ;;
        sd/shmem* | sd/sdipclnx/* | sd/sysunix/fifo*) echo ipc ;;
        sd/sdfiolnx/* | sd/sdfio/* | sd/sddiolnx* | sd/sysunix/match*) echo file ;;
        *) echo os ;;
    esac
}

# The included names of a file, with their brackets or quotes.
includesOf() { sed -nE 's/^[ \t]*#[ \t]*include[ \t]*(<[^>]*>|"[^"]*").*/\1/p' "$1"; }

checkSource() {
    local file=$1 home name target
    home=$(subsystemOf "$file")
    while read -r name; do
        case $name in
            '<kemsd/'*) ;;
            '<sd/'* | '<misc/'*) wrong "$file: $name: our own files stand in quotes" ;;
            '<'*) ;;
            '"sd/base/'*) ;;
            '"sd/'*)
                target=${name//\"/}
                if [ "$home" = base ]; then
                    wrong "$file: $name: sd/base includes nothing of ours but <kemsd/...>"
                elif [ "$(subsystemOf "$target")" != "$home" ]; then
                    wrong "$file ($home) includes $name ($(subsystemOf "$target"))"
                fi ;;
            *) wrong "$file: $name: write the full path, \"sd/...\", or <kemsd/...>" ;;
        esac
    done < <(includesOf "$file")
}

checkHeader() {
    local name
    while read -r name; do
        case $name in
            '<kemsd/'*) ;;
            '<sd/'* | '"'*) wrong "$1: $name: a public header includes public headers alone" ;;
        esac
    done < <(includesOf "$1")
}

mapfile -t sources < <(find sd misc -name '*.cpp' -o -name '*.h' | sort)
mapfile -t headers < <(find include -name '*.h' | sort)
if [ ${#sources[@]} -eq 0 ] || [ ${#headers[@]} -eq 0 ]; then
    echo "no sources or no headers under $1"
    exit 1
fi
for file in "${sources[@]}"; do
    checkSource "$file"
    case ${file##*/} in
        common.* | util.* | utils.* | misc.* | internal.*) wrong "$file: a name that says nothing" ;;
    esac
    if [[ $file == *.cpp ]]; then
        times=$(grep -cE "^ +$file\)?$" CMakeLists.txt || true)
        [ "$times" -eq 1 ] || wrong "$file: listed $times times in CMakeLists.txt"
    fi
done
for file in "${headers[@]}"; do
    checkHeader "$file"
done
echo "${#sources[@]} sources, ${#headers[@]} public headers, $failures failures"
[ "$failures" -eq 0 ]

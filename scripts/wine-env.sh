# Wine prefixes for Tarrow's programs. Sourced by tests/support/wine-run and scripts/main-job.
#   ensure_template ROOT   make ROOT/template once (a fresh Wine prefix), safe to call concurrently
#   new_prefix ROOT        print the path of a new prefix copied from the template
#   end_prefix PREFIX      stop the prefix's wineserver and remove the prefix
WINE=${WINE:-/usr/lib/wine/wine64}
WINESERVER=${WINESERVER:-/usr/lib/wine/wineserver}
export WINEDEBUG=${WINEDEBUG:--all}
# No Mono or Gecko installer prompts.
export WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-mscoree,mshtml=}

ensure_template() {
    local root=$1
    mkdir -p "$root/prefixes"
    (
        flock 9
        if [ ! -f "$root/template/.ready" ]; then
            rm -rf "$root/template"
            WINEPREFIX=$root/template "$WINE" wineboot -i >/dev/null 2>&1
            WINEPREFIX=$root/template "$WINESERVER" -w
            touch "$root/template/.ready"
        fi
    ) 9>"$root/template.lock"
}

new_prefix() {
    local root=$1 prefix
    prefix=$(mktemp -d "$root/prefixes/p.XXXXXX")
    cp -a "$root/template/." "$prefix/"
    rm -f "$prefix/.ready"
    echo "$prefix"
}

end_prefix() {
    local prefix=$1
    WINEPREFIX=$prefix "$WINESERVER" -k >/dev/null 2>&1
    WINEPREFIX=$prefix "$WINESERVER" -w >/dev/null 2>&1
    rm -rf "$prefix"
}

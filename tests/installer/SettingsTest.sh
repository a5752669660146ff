#!/usr/bin/env bash
# The settings as the service's table, the Group Policy templates and the admin guide's table give
# them must be the same: the same values under the same keys, with the same types, defaults,
# ranges and policy scopes (machine, or machine and user); the templates must write under
# SOFTWARE\Policies, where the service looks first, and be well-formed XML.
#   SettingsTest.sh <folder of tarrow_settings.exe>
set -u
. "$(dirname "$0")/lib.sh"
bin=$(cd "$1" && pwd)
policy=$here/../../installer/policy
readme=$here/../../docs/admin-guide.md
use_new_prefix "${TARROW_WINE_ROOT:-$(dirname "$bin")/wine}"

# Every source as lines "key value type default minimum maximum policy", sorted; strings have no
# range; the key is the service's own, the one below SOFTWARE\Policies without "Policies\".
from_table() {
    w "$bin/tarrow_settings.exe" | tr -d '\r' | awk -F'\t' '{print $1, $2, $3, $4, $5, $6, $7}' | sed 's/ *$//' | sort
}
from_readme() {
    sed -n '/^## Configuration in the registry/,/^## /p' "$readme" | grep '^| `SOFTWARE' |
        awk -F'|' '{for (i = 2; i <= 7; i++) {gsub(/^ +| +$|`|"/, "", $i)}
                    type = $4 == "REG_DWORD" ? "dword" : "string"; split($6, range, " to ")
                    print $2, $3, type, $5, range[1], range[2], $7}' | sed 's/ *$//' | sort
}
# The key and scope from the policy, the range from its element, the default from the English
# presentation.
from_templates() {
    local key name lo hi scope
    grep -o 'class="[^"]*"\|key="[^"]*"\|<decimal [^>]*>\|<text [^>]*>' "$policy/Tarrow.admx" | while read -r line; do
        case $line in
        class=*) scope=machine; [ "$line" = 'class="Both"' ] && scope="machine, user" ;;
        key=*) key=${line#key=\"}; key=${key%\"}; key=$(sed 's/\\Policies\\/\\/' <<<"$key") ;;
        *) name=$(sed 's/.*valueName="\([^"]*\)".*/\1/' <<<"$line")
           if [[ $line == "<decimal"* ]]; then
               lo=$(sed 's/.*minValue="\([^"]*\)".*/\1/' <<<"$line"); hi=$(sed 's/.*maxValue="\([^"]*\)".*/\1/' <<<"$line")
               echo "$key $name dword $(grep -o "refId=\"$name\" defaultValue=\"[^\"]*\"" "$policy/en-US/Tarrow.adml" |
                   sed 's/.*defaultValue="//; s/"//') $lo $hi $scope"
           else
               echo "$key $name string $(sed -n "/<textBox refId=\"$name\">/,/<\/textBox>/s/.*<defaultValue>\(.*\)<\/defaultValue>.*/\1/p" \
                   "$policy/en-US/Tarrow.adml")   $scope"
           fi ;;
        esac
    done | sed 's/ *$//' | sort
}

check "Tarrow.admx is well-formed" xmllint --noout "$policy/Tarrow.admx"
check "en-US/Tarrow.adml is well-formed" xmllint --noout "$policy/en-US/Tarrow.adml"
table=$(from_table)
echo "$table"
check "the table has the settings" test "$(wc -l <<<"$table")" -ge 10
check "the admin guide's table is the service's" diff <(echo "$table") <(from_readme)
check "the templates are the service's table" diff <(echo "$table") <(from_templates)
check "every template writes below SOFTWARE\\Policies" test -z "$(grep -o 'key="[^"]*"' "$policy/Tarrow.admx" |
    grep -v '^key="SOFTWARE\\Policies\\Orvane\\Kelmar\\')"
check "the value names are the same set" diff <(awk '{print $2}' <<<"$table" | sort -u) \
    <(grep -o 'valueName="[^"]*"' "$policy/Tarrow.admx" | sed 's/valueName="//; s/"//' | sort -u)

summary

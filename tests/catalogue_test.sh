#!/usr/bin/env bash
# Compares the catalogues with the messages in the source. Usage: catalogue_test.sh SOURCE-DIR EXTRACTED-TEMPLATE
set -u
cd "$1/po" || exit 1
failed=0
without_date() { grep -v '^"POT-Creation-Date:' "$1"; }
diff <(without_date orvin-firmware-upgrade.pot) <(without_date "$2") ||
    { echo "orvin-firmware-upgrade.pot is out of date: build the target update-po"; failed=1; }
while read -r language; do
    # The placeholders match those of the message, and every message is translated.
    msgfmt --check --output-file=/dev/null "$language.po" || failed=1
    msgcmp "$language.po" "$2" || failed=1
done <LINGUAS
exit $failed

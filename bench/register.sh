#!/bin/bash
# What an administrator would write to give a package's services the certificate "factory": copy beside, sync, swap.
# It keeps no books and takes no locks. scripts/bench compares the tool with it.
set -euo pipefail

archive=/usr/opal/etc/certificate/_archive/factory
root=/usr/local/etc/certificate/$1
mkdir -p "$root"
for ((number = 0; number < $2; ++number)); do
    folder=$root/s$number
    rm -rf "$folder.temp"
    mkdir "$folder.temp"
    for name in cert.pem privkey.pem fullchain.pem; do
        cp -f "$archive/$name" "$folder.temp/$name"
    done
    chmod 0400 "$folder.temp"/*.pem
    chown opalweb:opalweb "$folder.temp"/*.pem
    echo "{\"subscriber\": \"$1\", \"service\": \"s$number\"}" >"$folder.temp/info"
    sync -f "$folder.temp"
    rm -rf "$folder.bak"
    [ ! -d "$folder" ] || mv "$folder" "$folder.bak"
    mv "$folder.temp" "$folder"
    sync -f "$root"
    rm -rf "$folder.bak"
done

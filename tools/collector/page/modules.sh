#!/usr/bin/env bash
# Brings the npm packages of the web page into a folder of the build: modules.sh FOLDER
# What package-lock.json asks for stays once it is there, so that only the first build needs a registry.
set -euo pipefail
source=$(cd "$(dirname "$0")" && pwd)
mkdir -p "$1"
cd "$1"

whole() { [ -f node_modules/uplot/package.json ] && [ -f node_modules/playwright-core/package.json ]; }
if ! { whole && cmp -s "$source/package-lock.json" package-lock.json; }; then
    command -v npm >/dev/null || {
        echo "web page: npm is not installed (scripts/bootstrap installs what a build needs)" >&2
        exit 1
    }
    rm -f package-lock.json
    cp "$source/package.json" .
    mkdir -p fresh
    cp "$source/package.json" "$source/package-lock.json" fresh
    if ! (cd fresh && npm ci --ignore-scripts --no-audit --no-fund --prefer-offline --loglevel=error) >npm.log 2>&1; then
        cat npm.log >&2
        echo "web page: 'npm ci' failed (above), so its packages are missing in $PWD;" \
            "the first build needs an npm registry, later ones do not" >&2
        exit 1
    fi
    rm -rf node_modules
    mv fresh/node_modules .
    rm -rf fresh
    cp "$source/package-lock.json" .
fi
touch modules.stamp

#!/usr/bin/env bash
# Compiles every Objective-C++ file of the macOS backends on this (non-Apple) machine, with the
# project's warnings and ARC, against tools/macos-sdk: a declaration-only model of the parts of
# Apple's SDK they use, each declaration transcribed from Apple's documented signature. It
# catches what a compiler on a Mac would: a wrong argument type, a missing cast, a call that
# ARC forbids, an unknown constant. Nothing is linked or run. Exits non-zero on any error.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
model=tools/macos-sdk
clang=${CLANGXX:-clang++}

mapfile -t files < <(find src/platform/macos -name '*.mm' | sort)
if [ "${#files[@]}" -eq 0 ]; then
    echo "check-macos: no .mm file under src/platform/macos" >&2
    exit 1
fi
# Every file checked here must be one the macOS build compiles, and it compiles them all with
# ARC (set once for the directory).
for file in "${files[@]}"; do
    if ! grep -rqF "$(basename "$file")" src/platform/macos --include='*.cmake' --include=CMakeLists.txt; then
        echo "check-macos: $file is not part of the macOS build" >&2
        exit 1
    fi
done
if ! grep -qF -- '-fobjc-arc' src/platform/macos/CMakeLists.txt; then
    echo "check-macos: the macOS backends are expected to build with -fobjc-arc" >&2
    exit 1
fi

# The project's own definitions, as the top-level CMakeLists gives them to every target.
mapfile -t defines < <(sed -n '/target_compile_definitions(vemira_options INTERFACE/,/)/p' \
    CMakeLists.txt | grep -oE 'QT_[A-Z_]+(=[0-9a-fx]+)?' | sed 's/^/-D/')
read -r -a qt <<<"$(pkg-config --cflags Qt6Core)"

flags=(-x objective-c++ -std=c++20 -fsyntax-only -fobjc-arc -fobjc-runtime=macosx-13.0 -fblocks
    -D__APPLE__ -D__MACH__ -isystem "$model" -Isrc "${qt[@]}" "${defines[@]}" -fPIC
    -Wall -Wextra -Werror)

failed=0
for file in "${files[@]}"; do
    if ! "$clang" "${flags[@]}" "$file"; then
        echo "check-macos: $file does not compile against the SDK model" >&2
        failed=1
    fi
done

# Declarations of the model: every function, variable, type, enumerator, Objective-C class,
# protocol, method and property declared in its headers (each name once), plus its macros.
umbrella=$(mktemp --suffix=.mm)
trap 'rm -f "$umbrella"' EXIT
for header in $(cd "$model" && find . -name '*.h' | sed 's|^\./||' | sort); do
    echo "#include <$header>" >>"$umbrella"
done
declarations=$("$clang" -x objective-c++ -std=c++20 -fsyntax-only -fobjc-arc \
    -fobjc-runtime=macosx-13.0 -fblocks -isystem "$model" -Xclang -ast-dump=json "$umbrella" |
    python3 -c '
import json, sys
kinds = {"FunctionDecl", "VarDecl", "TypedefDecl", "RecordDecl", "CXXRecordDecl", "EnumDecl",
         "EnumConstantDecl", "ObjCInterfaceDecl", "ObjCProtocolDecl", "ObjCMethodDecl",
         "ObjCPropertyDecl"}
model = sys.argv[1]
names = set()
current = ""
def walk(node):
    global current
    loc = node.get("loc", {})
    if "file" in loc:
        current = loc["file"]
    elif "spellingLoc" in loc and "file" in loc["spellingLoc"]:
        current = loc["spellingLoc"]["file"]
    if (node.get("kind") in kinds and not node.get("isImplicit") and model in current
            and node.get("name")):
        names.add(node["name"])
    for child in node.get("inner", []):
        if child.get("kind") != "ParmVarDecl":
            walk(child)
walk(json.load(sys.stdin))
print(len(names))
' "$model")
macros=$(grep -rhE '^#define (k|CF|NS|YES|NO|DISPATCH|FOUNDATION)' "$model" | wc -l)

if [ "$failed" -ne 0 ]; then
    echo "check-macos: FAILED" >&2
    exit 1
fi
echo "check-macos: ${#files[@]} files compiled against $((declarations + macros)) declarations" \
    "of the SDK model ($declarations declarations, $macros macros)"

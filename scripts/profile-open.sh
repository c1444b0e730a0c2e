#!/usr/bin/env bash
# Where an open's instructions go: runs io_bench's create + close cases under callgrind (counting
# only inside NtCreateFile and NtClose) and prints the instructions of one create + close for each
# case, then, for FolderMerge's case, the routines that cost most per open (inclusive).
#
#   bash scripts/profile-open.sh                       no filter, pass-through, FolderMerge outside (50 folders)
#   bash scripts/profile-open.sh 'FolderMerge/Managed50Folders$'   any io_bench case instead of FolderMerge's
#
# Instruction counts do not move with the machine's load, so they show a change that a timed run
# on a shared machine would hide. The release build is in build/rel; the profiles stay in
# build/rel/profiles/ for callgrind_annotate.
set -euo pipefail
cd "$(dirname "$0")/.."

focus=${1:-'FolderMerge/Outside50Folders$'}
bash scripts/install-deps.sh valgrind
cmake -S . -B build/rel -G Ninja -DCMAKE_BUILD_TYPE=Release -DFM_BUILD_TESTS=OFF >/dev/null
cmake --build build/rel --target io_bench >/dev/null
mkdir -p build/rel/profiles

# Profiles one case; prints "<instructions per create + close>".
profile() {
  local filter=$1 out=$2
  valgrind --tool=callgrind --callgrind-out-file="$out" --toggle-collect=NtCreateFile --toggle-collect=NtClose \
    build/rel/io_bench --benchmark_filter="$filter" --benchmark_min_time=1 --benchmark_repetitions=1 \
    >/dev/null 2>&1 || true
  local total calls
  total=$(callgrind_annotate "$out" | awk '/PROGRAM TOTALS/ {gsub(",", "", $1); print $1}')
  calls=$(callgrind_annotate --tree=caller --inclusive=yes "$out" |
          grep -B1 '\*.*:NtCreateFile \[' | grep -o '([0-9,]*x)' | tr -dc '0-9')
  echo $((total / calls)) "$calls"
}

read -r base baseCalls < <(profile 'CreateClose/NoFilter$' build/rel/profiles/nofilter.out)
printf '%-44s %8s instructions per create + close\n' 'no filter' "$base"
for filter in 'CreateClose/PassThroughFilter$' "$focus"; do
  name=$(echo "$filter" | tr -dc 'A-Za-z0-9')
  read -r cost calls < <(profile "$filter" "build/rel/profiles/$name.out")
  printf '%-44s %8s (x%s)\n' "$filter" "$cost" "$(awk -v a="$cost" -v b="$base" 'BEGIN {printf "%.2f", a / b}')"
done

echo
echo "the costliest routines of $focus, instructions per open (inclusive):"
callgrind_annotate --inclusive=yes "build/rel/profiles/$name.out" |
  sed -n -E 's/^ *([0-9,]+) \( *[0-9.]+%\) +(.*)$/\1 \2/p' |
  awk -v calls="$calls" '{
    n = $1; gsub(",", "", n); $1 = ""; sub(/^ +/, "");
    sub(/ \[[^]]*\]$/, ""); sub(/^[^:]*:/, ""); sub(/\(.*$/, "");
    if (n / calls >= 150 && seen[$0]++ == 0) printf "  %8d  %s\n", n / calls, $0
  }' | grep -v -E 'benchmark|main$|libc_start|CreateAndCloseEach|_FUN$|^ +[0-9]+ +(0x|$)' | head -40 || true

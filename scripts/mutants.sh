#!/usr/bin/env bash
# Checks that the suite catches the faults listed in tests/mutants.txt: applies each mutant in
# turn, rebuilds, runs the release suite, records killed or survived, and puts the file back.
#
#   scripts/mutants.sh [-n] [-b BUILD_DIR] [-o RESULTS] [-j JOBS] [-t TARGETS] [M01 M07 ...]
#
# -n only shows each mutant as a diff, without building anything.
# BUILD_DIR (default build) must be a configured release tree. Without mutant ids every mutant
# runs. RESULTS (default mutants-results.txt in BUILD_DIR) gets one line per mutant:
#   M07 killed    <failing tests>      the suite failed
#   M05 survived                       the suite passed
#   M03 unbuildable                    the mutant does not compile (fix the mutant)
# A kill whose failing tests all pass when run again is marked "(passed again)": a kill by a
# flaky or timing-dependent test, or a clash on the shared control block, to look at by hand.
# -t builds only the given targets (space-separated), for a run limited to some areas.
# Everything is niced; set CTEST_ARGS to pass more options to ctest (for instance -L to run
# only some labels).
set -euo pipefail
cd "$(dirname "$0")/.."

build=build
results=
jobs=2
targets=()
show=false
while getopts "nb:o:j:t:" option; do
  case $option in
    n) show=true ;;
    b) build=$OPTARG ;;
    o) results=$OPTARG ;;
    j) jobs=$OPTARG ;;
    t) read -ra named <<<"$OPTARG"; for t in "${named[@]}"; do targets+=(--target "$t"); done ;;
    *) sed -n '2,19p' "$0" >&2; exit 64 ;;
  esac
done
shift $((OPTIND - 1))
results=${results:-$build/mutants-results.txt}
list=tests/mutants.txt

# The list as parallel arrays.
ids=() names=() files=() finds=() replaces=()
while IFS= read -r line || [[ -n $line ]]; do
  case $line in
    M[0-9]*) ids+=("${line%% *}"); names+=("${line#* }"); files+=(""); finds+=(""); replaces+=("") ;;
    file:*) files[${#ids[@]} - 1]=${line#file: } ;;
    find:*) finds[${#ids[@]} - 1]=${line#find: } ;;
    replace:*) replaces[${#ids[@]} - 1]=${line#replace:}; replaces[${#ids[@]} - 1]=${replaces[${#ids[@]} - 1]# } ;;
  esac
done <"$list"

wanted=("$@")
selected() {
  [[ ${#wanted[@]} -eq 0 ]] && return 0
  local id
  for id in "${wanted[@]}"; do [[ $id == "$1" ]] && return 0; done
  return 1
}

# Counts or replaces the text literally; "\n" in the list stands for a line break.
occurrences() {
  FIND=$2 perl -0777 -ne '$f = $ENV{FIND}; $f =~ s/\\n/\n/g; $n = () = /\Q$f\E/g; print $n' "$1"
}
mutate() {
  FIND=$2 REPLACE=$3 perl -0777 -pi -e \
    'BEGIN { ($f, $r) = @ENV{qw(FIND REPLACE)}; s/\\n/\n/g for $f, $r } s/\Q$f\E/$r/' "$1"
}

backup=
restore() {
  # A fresh modification time, so the build recompiles the original.
  if [[ -n $backup ]]; then cat "$backup" >"${backup%.mutant-original}" && rm -f "$backup"; fi
  backup=
}
trap restore EXIT
trap 'restore; exit 130' INT TERM

# Every mutant must still apply before any is run.
for i in "${!ids[@]}"; do
  selected "${ids[$i]}" || continue
  count=$(occurrences "${files[$i]}" "${finds[$i]}")
  if [[ $count != 1 ]]; then
    echo "${ids[$i]}: the text to find occurs $count times in ${files[$i]}" >&2
    exit 2
  fi
  if $show; then
    copy=$(mktemp)
    cp "${files[$i]}" "$copy"
    mutate "$copy" "${finds[$i]}" "${replaces[$i]}"
    echo "${ids[$i]} ${names[$i]}"
    diff -u --label "${files[$i]}" --label "${files[$i]}" "${files[$i]}" "$copy" || true
    rm -f "$copy"
  fi
done
$show && exit 0
[[ -f $build/build.ninja || -f $build/Makefile ]] || { echo "no build tree in $build" >&2; exit 2; }

logs=$build/mutant-logs
mkdir -p "$logs"
: >"$results"
for i in "${!ids[@]}"; do
  id=${ids[$i]} file=${files[$i]}
  selected "$id" || continue
  started=$SECONDS
  backup=$file.mutant-original
  cp "$file" "$backup"
  mutate "$file" "${finds[$i]}" "${replaces[$i]}"
  if ! nice -n 15 cmake --build "$build" -j "$jobs" "${targets[@]}" >"$logs/$id.build" 2>&1; then
    outcome=unbuildable
  elif nice -n 15 ctest --test-dir "$build" -j "$jobs" --timeout 120 ${CTEST_ARGS:-} \
    >"$logs/$id.test" 2>&1; then
    outcome=survived
  else
    failed=$(sed -n 's/^[[:space:]]*[0-9][0-9]* - \([^ ]*\) .*/\1/p' "$logs/$id.test" |
      tr '\n' ' ')
    outcome="killed    ${failed% }"
    if nice -n 15 ctest --test-dir "$build" --rerun-failed --timeout 120 >"$logs/$id.rerun" 2>&1
    then
      outcome="$outcome (passed again)"
    fi
  fi
  restore
  printf '%s %s\n' "$id" "$outcome" | tee -a "$results"
  echo "    ${names[$i]} ($((SECONDS - started)) s)"
done
nice -n 15 cmake --build "$build" -j "$jobs" "${targets[@]}" >"$logs/original.build" 2>&1
echo "Results in $results"

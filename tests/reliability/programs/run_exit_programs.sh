#!/usr/bin/env bash
# Runs the exit program in each of its modes, in fresh directories, and fails when one hangs (more
# than 10 s of wall time), crashes, ends with another status than 0, or prints a sanitizer report.
#   run_exit_programs.sh <exit program>
set -uo pipefail
program_file="$1"
limit=10
status=0
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

run() {
  local mode="$1" config="$2"
  local package="$work/$mode/package" local_dir="$work/$mode/local"
  mkdir -p "$package" "$local_dir"
  [ -n "$config" ] && printf '%s' "$config" >"$package/VelmoraConfig.json"
  local start end rc
  start=$(date +%s%N)
  timeout -s KILL "$limit" "$program_file" "$mode" "$package" "$local_dir" >"$work/$mode.out" 2>"$work/$mode.err"
  rc=$?
  end=$(date +%s%N)
  local ms=$(( (end - start) / 1000000 ))
  local verdict="ok"
  if [ "$rc" -eq 137 ]; then
    verdict="hung (killed after ${limit}s)"
  elif [ "$rc" -ne 0 ]; then
    verdict="ended with status $rc"
  elif grep -qE "Sanitizer|runtime error:|==[0-9]+==ERROR" "$work/$mode.err"; then
    verdict="sanitizer report"
  fi
  echo "$mode: $verdict in ${ms} ms"
  if [ "$verdict" != "ok" ]; then
    status=1
    tail -40 "$work/$mode.err"
  fi
}

# A closed port: every send fails at once, so hits stay queued.
closed='{"analytics":{"rsids":"rs","server":"127.0.0.1:9","offlineEnabled":true,"batchLimit":0}}'
full='{"analytics":{"rsids":"rs","server":"127.0.0.1:9","offlineEnabled":true,"batchLimit":0,"poi":[["Home",40.7,-74.0,5000]]},"vantor":{"clientCode":"acme","timeout":1},"cohorta":{"server":"127.0.0.1:9"}}'

run return "$closed"
run cooldown "$closed"
run loaded "$full"
exit $status

#!/usr/bin/env bash
# Runs each exit program in fresh directories and fails when one hangs (more than 10 s of wall
# time), crashes, ends with another status than 0, or prints a sanitizer report.
#   run_exit_programs.sh <directory of the programs>
set -uo pipefail
bin="$1"
limit=10
status=0
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

run() {
  local program="$1" config="$2"
  local package="$work/$program/package" local_dir="$work/$program/local"
  mkdir -p "$package" "$local_dir"
  [ -n "$config" ] && printf '%s' "$config" >"$package/VelmoraConfig.json"
  local start end rc
  start=$(date +%s%N)
  timeout -s KILL "$limit" "$bin/velmora_$program" "$package" "$local_dir" >"$work/$program.out" 2>"$work/$program.err"
  rc=$?
  end=$(date +%s%N)
  local ms=$(( (end - start) / 1000000 ))
  local verdict="ok"
  if [ "$rc" -eq 137 ]; then
    verdict="hung (killed after ${limit}s)"
  elif [ "$rc" -ne 0 ]; then
    verdict="ended with status $rc"
  elif grep -qE "Sanitizer|runtime error:|==[0-9]+==ERROR" "$work/$program.err"; then
    verdict="sanitizer report"
  fi
  echo "$program: $verdict in ${ms} ms"
  if [ "$verdict" != "ok" ]; then
    status=1
    tail -40 "$work/$program.err"
  fi
}

# A closed port: every send fails at once, so hits stay queued.
closed='{"analytics":{"rsids":"rs","server":"127.0.0.1:9","offlineEnabled":true,"batchLimit":0}}'
full='{"analytics":{"rsids":"rs","server":"127.0.0.1:9","offlineEnabled":true,"batchLimit":0,"poi":[["Home",40.7,-74.0,5000]]},"vantor":{"clientCode":"acme","timeout":1},"cohorta":{"server":"127.0.0.1:9"}}'

run exit_on_return "$closed"
run exit_in_cooldown ""
run exit_fully_loaded "$full"
exit $status

#!/usr/bin/env bash
# Runs the commands of docs/batch.md for GNU parallel and for Slurm, unchanged, and compares the files with those that
# the tool renders one by one. It starts a Slurm cluster of one node for as long as it runs. As root.
# usage: batch_test.sh BUILDDIR
set -euo pipefail
build=$(cd "$1" && pwd)
page=$(cd "$(dirname "$0")/../../docs" && pwd)/batch.md
work=$(mktemp -d)
export PATH=$build/bin:$PATH SLURM_CONF=$work/slurm.conf MODEL=$build/models/noise_reducer.onnx IN=$work/in OUT
started=
finish() { for id in $started; do kill "$id" 2>/dev/null || true; done; wait; rm -rf "$work"; }
trap finish EXIT

block() { awk -v first="$1" '/^```sh/ {inside=1; text=""; next} /^```/ {if (inside && index(text, first) == 1) printf "%s", text; inside=0} inside {text = text $0 "\n"}' "$page"; }

mkdir "$IN"
for i in 1 2 3 4 5; do
  { printf 'RIFF\44\372\0\0WAVEfmt \20\0\0\0\1\0\1\0\200\76\0\0\0\175\0\0\2\0\20\0data\0\372\0\0'; head -c 64000 /dev/urandom; } >"$IN/$i.wav"
done
for i in 1 2 3 4 5; do kalvrin render "$MODEL" "$IN/$i.wav" "$work/$i.wav" >/dev/null; done
compare() {
  for i in 1 2 3 4 5; do cmp "$work/$i.wav" "$OUT/$i.wav"; done
  [ "$(cat "$OUT".*.jsonl | grep -c '"status":"done"')" = 5 ] || { echo "$1: the logs do not show five files"; exit 1; }
  echo "$1: five files, as rendered alone"
}

OUT=$work/parallel
bash -ec "$(block parallel)" >/dev/null 2>&1
compare "GNU parallel"

mkdir -p /run/munge "$work/state" "$work/spool"
chown munge: /run/munge
munge -n >/dev/null 2>&1 || { runuser -u munge -- munged --foreground >"$work/munged.log" 2>&1 & started="$started $!"; }
host=$(hostname -s)
cat >"$SLURM_CONF" <<END
ClusterName=one
SlurmctldHost=$host(127.0.0.1)
AuthType=auth/munge
SlurmUser=root
StateSaveLocation=$work/state
SlurmdSpoolDir=$work/spool
SlurmctldPidFile=$work/slurmctld.pid
SlurmdPidFile=$work/slurmd.pid
SlurmctldPort=16817
SlurmdPort=16818
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
ReturnToService=2
NodeName=$host NodeAddr=127.0.0.1 CPUs=$(nproc)
PartitionName=all Nodes=ALL Default=YES State=UP
END
for daemon in slurmctld slurmd; do
  $daemon -D >"$work/$daemon.log" 2>&1 & started="$started $!"
done
for _ in $(seq 40); do sinfo -h 2>/dev/null | grep -q idle && break; sleep 0.5; done
sinfo -h | grep -q idle || { echo "Slurm does not start here:"; tail -n 5 "$work"/slurmctld.log "$work"/slurmd.log; exit 1; }

OUT=$work/slurm
block '#!/bin/sh' >"$work/job.sh"
(cd "$work" && sbatch --wait --export=ALL,MODEL="$MODEL",IN="$IN",OUT="$OUT" job.sh) || { cat "$work"/slurm-*.out; exit 1; }
compare Slurm

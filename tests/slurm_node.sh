#!/usr/bin/env bash
# A Slurm cluster of this one machine, all of its state in a folder; needs root, no systemd, no cgroups:
#   eval "$(tests/slurm_node.sh up FOLDER)"     prints the exports that clients need
#   tests/slurm_node.sh down FOLDER
# FAKE_GPUS=2 pretends two GPUs, with which bindings can be tried.
set -eu
folder=$2
port=${SLURM_NODE_PORT:-26817}

start_munge() { # refuses a key, log or socket whose folder others can write
  mkdir -p "$folder/munge"
  chmod 711 "$folder/munge"
  [ -s "$folder/munge/key" ] || (umask 077 && head -c 1024 /dev/urandom >"$folder/munge/key")
  (umask 077 && munged --force --socket="$folder/munge/s" --key-file="$folder/munge/key" --seed-file="$folder/munge/seed" \
    --pid-file="$folder/munged.pid" --log-file="$folder/munge/log" --num-threads=2 2>>"$folder/log/munged")
}

write_settings() {
  local host gres='' types='' i
  host=$(hostname -s)
  rm -f "$folder/gres.conf"
  for ((i = 0; i < ${FAKE_GPUS:-0}; i++)); do # copies of /dev/null: slurmd wants character devices
    [ -c "$folder/fakegpu$i" ] || mknod "$folder/fakegpu$i" c 1 3
    echo "NodeName=$host Name=gpu File=$folder/fakegpu$i Flags=nvidia_gpu_env" >>"$folder/gres.conf"
    types="GresTypes=gpu" gres=" Gres=gpu:$FAKE_GPUS"
  done
  cat >"$folder/slurm.conf" <<SETTINGS
ClusterName=one
SlurmctldHost=$host(127.0.0.1)
SlurmUser=root
SlurmdUser=root
AuthType=auth/munge
CredType=cred/munge
AuthInfo=socket=$folder/munge/s
SlurmctldPort=$port
SlurmdPort=$((port + 1))
StateSaveLocation=$folder/ctld
SlurmdSpoolDir=$folder/d
SlurmctldPidFile=$folder/slurmctld.pid
SlurmdPidFile=$folder/slurmd.pid
SlurmctldLogFile=$folder/log/slurmctld
SlurmdLogFile=$folder/log/slurmd
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
JobAcctGatherType=jobacct_gather/none
AccountingStorageType=accounting_storage/none
JobCompType=jobcomp/none
SelectType=select/cons_tres
SelectTypeParameters=CR_Core
SchedulerType=sched/builtin
MpiDefault=pmix
SwitchType=switch/none
ReturnToService=2
KillWait=5
MinJobAge=600
OverTimeLimit=0
$types
NodeName=$host NodeAddr=127.0.0.1 CPUs=$(nproc) RealMemory=$(($(awk '/MemTotal/ { print int($2 / 1024) }' /proc/meminfo) - 512)) State=UNKNOWN$gres
PartitionName=main Nodes=$host Default=YES MaxTime=INFINITE State=UP OverSubscribe=FORCE:4
SETTINGS
}

up() {
  mkdir -p "$folder"/{ctld,d,log}
  chmod 755 "$folder"
  start_munge
  write_settings
  export SLURM_CONF=$folder/slurm.conf
  slurmctld -f "$SLURM_CONF" >&2
  slurmd -f "$SLURM_CONF" >&2
  for _ in {1..100}; do
    [ "$(sinfo -h -o %T 2>/dev/null)" = idle ] && break
    sleep 0.1
  done
  sinfo >&2
  echo "export SLURM_CONF=$SLURM_CONF"
}

down() {
  local name pid
  export SLURM_CONF=$folder/slurm.conf
  scancel --user root 2>/dev/null || true
  for name in slurmd slurmctld munged; do
    pid=$(cat "$folder/$name.pid" 2>/dev/null) || continue
    [ "$(cat "/proc/$pid/comm" 2>/dev/null)" = "$name" ] || continue # else the number is another program's by now
    kill "$pid"
    for _ in {1..100}; do
      kill -0 "$pid" 2>/dev/null || break
      sleep 0.1
    done
    kill -9 "$pid" 2>/dev/null || true
  done
}

PATH=$PATH:/usr/sbin
"$1"

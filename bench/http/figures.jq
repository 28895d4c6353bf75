# The rounds' lines to medians with the least and the most.
def statistic(f): map(f | values) | sort | if length == 0 then null else {median: .[(length / 2) | floor], min: .[0], max: .[-1]} end;
{
  rounds: ([$rounds[] | select(.server == "diskcached" and .work == "4K")] | length),
  hits: ([$rounds[] | {server, work}] | unique | map(. as $of | [$rounds[] | select(.server == $of.server and .work == $of.work)]
    | $of + {perSecond: statistic(.perSecond), p50: statistic(.p50), p99: statistic(.p99), cpu: statistic(.cpu),
        failed: (map(.failed) | add), asked: (map(.asked) | add)})),
  herd: $herd,
  starts: $starts
}

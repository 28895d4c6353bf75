# Google Benchmark's files, slurped, to one line a figure: work, contender, measure, median, least, most.
# The lines of the context, first, hold what each peer was set to.
((map(.context) | add) | to_entries[] | select(.key | startswith("peer ")) | ["setting", .key[5:], .value]),
(map(.benchmarks[])
  | map(select(.run_type == "aggregate" or .repetitions == 1))
  | map({work: (.run_name | sub("/iterations:.*"; "")), statistic: (.aggregate_name // "median"),
         figure: (to_entries[] | select(.key | contains("/")))})
  | group_by([.work, .figure.key])[]
  | (map({(.statistic): .figure.value}) | add) as $by
  | [.[0].work] + (.[0].figure.key / "/") + [$by.median, $by.min // $by.median, $by.max // $by.median])
| @tsv

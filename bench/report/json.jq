# The lines of figures.jq, read raw and slurped, to one object: work, contender, measure, statistic.
split("\n") | map(select(. != "") / "\t")
| {
    about: (map(select(.[0] == "about") | .[2])),
    peers: (map(select(.[0] == "setting") | {(.[1]): .[2]}) | add),
    figures: (reduce (.[] | select(length == 6)) as [$work, $contender, $measure, $median, $min, $max] ({};
      .[$work][$contender][$measure] =
        {median: ($median | tonumber), min: ($min | tonumber), max: ($max | tonumber)}))
  }

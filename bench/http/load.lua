-- One object after the other: -- KIND COUNT [RANGE-BYTES]. Ends with a line of JSON, times in microseconds.
local requests, at = {}, 0

function init(args)
  local kind, count, range = args[1], tonumber(args[2]), tonumber(args[3])
  for i = 0, count - 1 do
    if range then
      for part = 0, 63 do
        local from = part * 1048576 + 65536
        requests[#requests + 1] = wrk.format("GET", "/" .. kind .. "-" .. i, {
          ["Host"] = wrk.headers["Host"], ["Range"] = "bytes=" .. from .. "-" .. from + range - 1 })
      end
    else
      requests[#requests + 1] = wrk.format("GET", "/" .. kind .. "-" .. i)
    end
  end
end

function request()
  at = at % #requests + 1
  return requests[at]
end

function done(summary, latency, _)
  local errors = summary.errors
  print(string.format('{"requests": %d, "perSecond": %.1f, "p50": %.0f, "p99": %.0f, "failed": %d}',
    summary.requests, summary.requests / (summary.duration / 1e6), latency:percentile(50), latency:percentile(99),
    errors.connect + errors.read + errors.write + errors.status + errors.timeout))
end

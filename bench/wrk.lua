-- Sends the same request, "depth" times in one piece (wrk ... -- DEPTH), and prints what was counted in
-- one line for bench/run.py. The text is made once: nothing here runs per request.
function init(args)
	local depth = tonumber(args[1] or 1)
	local format = wrk.format
	wrk.format = function(...) return string.rep(format(...), depth) end
end

function done(summary)
	local errors = summary.errors
	io.write(string.format("counted %d %d\n", summary.requests,
		errors.connect + errors.read + errors.write + errors.status + errors.timeout))
end

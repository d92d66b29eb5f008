-- lsyncd as a guard: watches the live tree and copies from the pristine one into it.
-- BENCH_WAY: "file" (one rsync a change), "pool" (the same, eight at once), "batch" (one rsync for
-- all that waits, which cannot say what was changed).
local live, good = os.getenv("BENCH_LIVE"), os.getenv("BENCH_GOOD")
local folder, way = os.getenv("BENCH_FOLDER"), os.getenv("BENCH_WAY")
local excluded = os.getenv("BENCH_EXCLUDED")
local rsync = {"-az", "-H", "-X", "--links", "--delete-excluded", "--temp-dir=/tmp"}

settings {
    nodaemon = true,
    logfile = folder .. "/lsyncd.log",
    maxProcesses = way == "pool" and 8 or 1,
}

local function arguments(...)
    local all = {table.unpack(rsync)}
    for _, one in ipairs({...}) do all[#all + 1] = one end
    return table.unpack(all)
end

local function content(path)
    local file = io.open(path, "rb")
    if not file then return nil end
    local bytes = file:read("a")
    file:close()
    return bytes or ""  -- a directory opens, and cannot be read
end

-- What our own rsync did comes as an event, too: comparing here is cheaper than another rsync.
local function put_back(event)
    local copy = (event.targetPathname:gsub("/$", ""))
    local path = (event.sourcePathname:gsub("/$", ""))
    local wanted = content(copy)
    if wanted == nil then
        spawn(event, "/bin/rm", "-rf", path)
    elseif wanted == content(path) then
        spawn(event, "/bin/true")  -- this version ends itself when an event is discarded here
    else
        local slash = event.isdir and "/" or ""
        spawn(event, "/usr/bin/rsync", arguments(copy .. slash, path .. slash))
    end
end

-- The way of lsyncd's own rsync action: what changed and the directories above are let in, all else is
-- kept out, so that what was added goes as well.
local function put_all_back(inlet)
    local list = inlet.getEvents(function(event) return event.etype ~= "Init" end)
    local lines, known = {}, {}
    local function let_in(path)
        if not known[path] then
            known[path] = true
            lines[#lines + 1] = path
        end
    end
    local paths = list.getPaths(function(kind, path, other)
        if kind == "Delete" and path:sub(-1) == "/" then path = path .. "***" end
        return path, other
    end)
    for _, path in ipairs(paths) do
        let_in(path)
        local above = path:match("^(.*/)[^/]+/?")
        while above do
            let_in(above)
            above = above:match("^(.*/)[^/]+/?")
        end
    end
    spawn(list, "/usr/bin/rsync", "<", table.concat(lines, "\n"), "-az", "-H", "-X", "--links",
          "--temp-dir=/tmp", "--delete", "--include-from=-", "--filter=- *", good .. "/", live .. "/")
end

-- Runs when all is watched: at the start, and again after lsyncd has lost events and begun anew. Only
-- then is the whole tree compared.
local started = folder .. "/watches"
local function whole_tree(event)
    local again = io.open(started, "r")
    if not again then
        io.open(started, "w"):close()
        return
    end
    again:close()
    spawn(event, "/usr/bin/rsync", arguments("--delete", good .. "/", live .. "/"))
end

-- A restore that fails, as of a file whose directory is gone, must not end lsyncd.
local every_code = {[0] = "ok"}
for code = 1, 255 do every_code[code] = "ok" end

local config = {
    exitcodes = every_code,
    source = live,
    target = good,
    delay = 0,
    maxProcesses = way == "pool" and 8 or 1,
    exclude = excluded ~= "" and {"*" .. excluded} or nil,
    init = function(event)
        whole_tree(event)
        if event.status == "wait" then event.inlet.discardEvent(event) end
    end,
}
if way == "batch" then
    config.action = put_all_back
    config.prepare = function() end
else
    for _, name in ipairs({"onCreate", "onModify", "onAttrib", "onDelete"}) do
        config[name] = put_back
    end
end
sync(config)

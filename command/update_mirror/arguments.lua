-- update-mirror's arguments: the documentation table DOC, from which --help, the manual page
-- (command/manpage.lua renders it at build time) and the parser below are all made, so the three
-- cannot drift apart; the exit statuses it documents; the one-line refusal of a bad argument.

-- The configuration read when --config is absent; the build puts the installed prefix's in.
local DEFAULT_CONFIG = "/etc/update-mirror/mirror.conf"

local DOC = {
  name = "update-mirror",
  summary = "mirror update components into a local repository, as one configured job",
  synopsis = {
    "update-mirror [--config FILE] [OPTION...]",
    "update-mirror [--config FILE] --dry-run [--json]",
    "update-mirror [--config FILE] --verify | --repair [--json]",
    "update-mirror [--config FILE] --list [--json]",
    "update-mirror [--config FILE] --export COMPONENT DIRECTORY",
  },
  description = {
    "Mirrors the update components a configuration file names (scan engines, pattern files, rule " ..
    "packages) from the first reachable update source into a repository directory, then cleans " ..
    "the repository up. Command-line options override the file. On a terminal the download is one " ..
    "line that updates in place; otherwise each package is a line, as cron mail wants it. A " ..
    "failure ends with one line on standard error naming what failed, and an exit status that " ..
    "tells source, repository and configuration problems apart.",
    "Two runs on one repository never overlap: the second answers \"repository is busy\" and " ..
    "exits 5 without touching anything, so no lock file is needed.",
    "Every answer about a run comes from the relay itself: the dry run is the relay planning the " ..
    "run without writing anything, so what it lists is what the run then does. A mirror reads " ..
    "each held archive back in full at most a week apart (each at its own interval, spread over the nights); " ..
    "--verify reads every one back now and reports the damage, --repair does the same and heals " ..
    "it as a nightly run would (downloading again what the source still offers, dropping the rest).",
  },
  -- flag, argument, what it sets; `key` names the setting it overrides, `many` repeats.
  options = {
    {flag = "--config", short = "-c", arg = "FILE",
     text = "read the job from FILE (see CONFIGURATION); without it, " .. DEFAULT_CONFIG .. " when it exists"},
    {flag = "--repository", arg = "DIR", key = "repository", text = "the repository directory"},
    {flag = "--source", arg = "URL", key = "sources", many = true,
     text = "a source (directory, file:// or http(s):// URL), tried in the order given; replaces the file's sources"},
    {flag = "--proxy", arg = "[socks5://][USER:PASSWORD@]HOST:PORT",
     text = "the proxy for the sources given with --source (HTTP unless socks5://)"},
    {flag = "--product", arg = "ID", key = "products", many = true,
     text = "a product identifier (c1t100); replaces the file's products"},
    {flag = "--mirror", arg = "WHAT", key = "mirror",
     text = "everything, patterns, patterns-except-kerno or components"},
    {flag = "--component", arg = "ID", key = "components", many = true,
     text = "a kind of component to mirror with --mirror components (c2t1207960066, c3t4)"},
    {flag = "--limit", arg = "KIB/S", text = "one bandwidth budget for the whole run, shared by all its transfers (the option maxbandwidth)"},
    {flag = "--option", arg = "KEY=VALUE", text = "a relay option (see CONFIGURATION), as in the file's options"},
    {flag = "--cleanup", text = "clean the repository up after the mirror (the default)"},
    {flag = "--no-cleanup", text = "leave server.ini and the per-version archives as the mirror left them"},
    {flag = "--dry-run", text = "list what a run would download and remove, with sizes; change nothing"},
    {flag = "--verify", text = "read every held archive back now and report what is damaged or missing; change nothing"},
    {flag = "--repair", text = "mirror as usual, reading every held archive back first and healing what is damaged"},
    {flag = "--quiet", short = "-q", text = "print nothing unless something changed or failed (for cron)"},
    {flag = "--json", text = "print a summary of the run (or the listing, or the plan) as JSON on standard output"},
    {flag = "--list", text = "list what the repository holds"},
    {flag = "--export", arg = "COMPONENT DIRECTORY",
     text = "write a held component's package (identifier or friendly name, such as kerno_english) into DIRECTORY"},
    {flag = "--help", short = "-h", text = "show this help"},
    {flag = "--version", text = "show the versions of the command and of the relay library"},
  },
  sections = {
    {"CONFIGURATION",
     "The file is a Lua table: assignments of the keys below (or a chunk that returns a table). " ..
     "It runs with no globals and no libraries; every key and value is checked before anything " ..
     "runs, and a mistake is one line naming the file, the key and the problem.",
     "repository = \"/srv/update\"  -- required\n" ..
     "sources = {                  -- required for a mirror; tried in order\n" ..
     "  {url = \"http://updates.example.net/mirror\",\n" ..
     "   proxy = {host = \"proxy.example.net\", port = 3128, user = \"u\", password = \"p\"}},\n" ..
     "  \"/srv/fallback-source\",\n" ..
     "}\n" ..
     "products = {}                -- identifiers; {} every product the source lists\n" ..
     "mirror = \"patterns\"          -- everything | patterns | patterns-except-kerno | components\n" ..
     "components = {\"c2t1207960066\", \"c22t2213\"}  -- with mirror = \"components\"\n" ..
     "options = {maxbandwidth = 10240, httpslevel = 2}\n" ..
     "signing_key = \"/etc/update-mirror/central-key.pem\"  -- sign the catalogs published\n" ..
     "trusted_keys = {[\"http://central.example/repo\"] = \"MCowBQYDK2VwAyEA...\"}\n" ..
     "cleanup = {keep = {\"c2t1207960066\"}}  -- or true (the default), or false",
     "A proxy's type is \"http\" (the default) or \"socks5\". mirror = \"everything\" needs at " ..
     "least one product. The relay options are maxbandwidth (KiB/s), buildpatch, maxmerge, " ..
     "diffcount, keepcount, httpslevel (0, 1 or 2), file_type_blacklist, " ..
     "enable_check_file_type_blacklist, and the time a source may take: lowspeedlimit (bytes/s, " ..
     "default 1024) over lowspeedtime (s, default 60), catalogtimeout (s, default 300). The clean-up resets server.ini and deletes the per-version " ..
     "archives packages/<identity>_<version>.zip, except those of the kinds of component that keep " ..
     "names; it runs after the mirror unless the mirror ended with a repository problem. " ..
     "signing_key names the Ed25519 private key (PEM, mode 0600, outside the repository) the " ..
     "repository signs source.ini and server.ini with (source.ini.sig, server.ini.sig). " ..
     "trusted_keys maps source addresses to public keys (the base64 line of openssl pkey -pubout, " ..
     "or a list of them during a rotation), or names a file of \"<address> <key>\" lines: the " ..
     "catalog of such a source is refused unless its key signed it, and when older than one " ..
     "accepted before; REPOSITORY/.trusted-keys adds to it. See docs/relay-signing.md."},
    {"ENVIRONMENT", {
      {"CURL_CA_BUNDLE, SSL_CERT_FILE, SSL_CERT_DIR", "the certificate authorities HTTPS sources are checked " ..
       "against (a bundle file, or a hashed directory), instead of the system's"},
      {"UPDATE_SIGNING_KEY", "the private key the repository signs its catalogs with, when the " ..
       "configuration names no signing_key"},
      {"UPDATE_METRICS_DIR", "a directory where each run writes update_mirror.prom, its figures for a " ..
       "metrics collector's text-file input; a missing directory is warned about"},
    }},
    {"FILES", {
      {DEFAULT_CONFIG, "the configuration read when --config is absent"},
      {"REPOSITORY/server.ini, REPOSITORY/source.ini", "the catalogs the repository serves"},
      {"REPOSITORY/packages/", "the merged archives (and per-version archives with buildpatch)"},
      {"REPOSITORY/report.json", "the last run's report: outcome, figures, every package and failure"},
      {"REPOSITORY/.trusted-keys", "public keys trusted per source (\"<address> <key>\" lines); " ..
       "REPOSITORY/.catalog-generations, the newest catalog generation accepted from each"},
      {"REPOSITORY/.lock", "held by the run that writes the repository; a second run answers busy"},
      {"REPOSITORY/.held, REPOSITORY/.verified", "the relay's records of what each archive holds and " ..
       "when it was last read back; rebuilt from the archives when missing"},
    }},
    {"OUTPUT",
     "--json prints one object: status and message (the relay's), exit (the exit status), " ..
     "repository, source, seconds, bytes, downloaded (path, bytes), skipped (components already " ..
     "held: name, version), failed (path, reason), removed (paths). A dry run prints the same keys " ..
     "with \"dry_run\": true, what it would download under downloaded and what the run and the " ..
     "clean-up would remove under removed. --verify and --repair add damaged (name, version, what). " ..
     "With --json, standard error carries only warnings and failures."},
    -- A list of {term, text} pairs is a tagged list.
    {"EXIT STATUS", {
      {"0", "success"},
      {"1", "any other failure: cancelled, out of memory, relay library not started"},
      {"2", "bad configuration or arguments (also the relay's \"invalid argument\", -1)"},
      {"3", "a source problem: unreachable, not found, integrity check failed, invalid catalog, HTTP " ..
            "error, host not resolved, connection failed, certificate refused, proxy refused, " ..
            "unsupported address (statuses -5, -6, -7, -11 to -16, -19)"},
      {"4", "a repository problem: not accessible, i/o error, no space, permission denied, damage " ..
            "found by --verify (statuses -3, -10, -17, -18)"},
      {"5", "the repository is busy: another run holds it (status -9); nothing was touched, and the " ..
            "shipped unit counts it as no failure"},
      {"6", "stopped by SIGTERM or SIGINT: the run ended cleanly, its report written and what was " ..
            "downloaded kept for the next run"},
    }},
    {"EXAMPLES",
     "update-mirror -c /etc/update-mirror/mirror.conf\n" ..
     "update-mirror -c /etc/update-mirror/mirror.conf --dry-run\n" ..
     "update-mirror --repository /srv/update --source http://updates.example.net/mirror --json\n" ..
     "update-mirror --repository /srv/update --export kerno_english /srv/export"},
  },
}

local EXIT = {ok = 0, failure = 1, usage = 2, source = 3, repository = 4, busy = 5, stopped = 6}
local EXIT_OF_STATUS = {[-1] = 2, [-3] = 4, [-9] = 5, [-10] = 4, [-17] = 4, [-18] = 4}
for _, status in ipairs{-5, -6, -7, -11, -12, -13, -14, -15, -16, -19} do EXIT_OF_STATUS[status] = EXIT.source end

-- A problem found while reading arguments or the configuration: raised as a table so that the
-- whole check stops at the first one, and reported as one line with exit status 2.
local function refuse(format, ...) error({problem = string.format(format, ...)}, 0) end

------------------------------------------------------------------------------ help

-- Words of text in lines of at most width columns, each after indent.
local function wrap(text, width, indent)
  local lines, line = {}, nil
  for word in text:gmatch("%S+") do
    if line and #line + 1 + #word > width then lines[#lines + 1], line = line, nil end
    line = line and line .. " " .. word or indent .. word
  end
  lines[#lines + 1] = line
  return table.concat(lines, "\n")
end

local function helpText()
  local lines = {"usage: " .. DOC.synopsis[1], "       " .. table.concat(DOC.synopsis, "\n       ", 2), "",
                 DOC.summary .. ".", "", "options:"}
  for _, option in ipairs(DOC.options) do
    local head = "  " .. (option.short and option.short .. ", " or "    ") .. option.flag .. (option.arg and " " .. option.arg or "")
    local body = wrap(option.text, 79, string.rep(" ", 29))
    lines[#lines + 1] = #head < 28 and head .. body:sub(#head + 1) or head .. "\n" .. body
  end
  for _, section in ipairs(DOC.sections) do
    if section[1] == "EXIT STATUS" then
      lines[#lines + 1] = "\nexit status:"
      for _, entry in ipairs(section[2]) do
        lines[#lines + 1] = "  " .. entry[1] .. wrap(entry[2], 79, "     "):sub(4)
      end
    end
  end
  lines[#lines + 1] = "\nThe manual page update-mirror(1) describes the configuration file."
  return table.concat(lines, "\n")
end

------------------------------------------------------------------------------ arguments

local FLAGS = {}
for _, option in ipairs(DOC.options) do
  FLAGS[option.flag] = option
  if option.short then FLAGS[option.short] = option end
end

local function parseArguments(args)
  local given = {overrides = {}}
  local i = 1
  local function value(option)
    local text = args[i + 1]
    if text == nil then refuse("%s needs %s", option.flag, option.arg) end
    i = i + 1
    return text
  end
  while i <= #args do
    local word = args[i]
    local flag, inline = word:match("^(%-%-[%w-]+)=(.*)$")
    if inline then args[i] = flag; table.insert(args, i + 1, inline); word = flag end
    local option = FLAGS[word] or refuse("unknown option %s (see --help)", word)
    if option.key then
      local text = value(option)
      if option.many then
        given.overrides[option.key] = given.overrides[option.key] or {}
        table.insert(given.overrides[option.key], text)
      else
        given.overrides[option.key] = text
      end
    elseif option.flag == "--config" then given.config = value(option)
    elseif option.flag == "--proxy" then given.proxy = value(option)
    elseif option.flag == "--limit" then
      given.options = given.options or {}
      given.options[#given.options + 1] = {"maxbandwidth", value(option), "--limit"}
    elseif option.flag == "--option" then
      local text = value(option)
      local key, v = text:match("^([%w_]+)=(.*)$")
      if not key then refuse("--option needs KEY=VALUE, not %q", text) end
      given.options = given.options or {}
      given.options[#given.options + 1] = {key, v}
    elseif option.flag == "--export" then
      given.export = {value(option), value(option)}
    elseif option.flag == "--cleanup" or option.flag == "--no-cleanup" then
      given.overrides.cleanup = option.flag == "--cleanup"
    else
      given[option.flag:sub(3):gsub("-", "_")] = true
    end
    i = i + 1
  end
  local actions = 0
  for _, key in ipairs{"dry_run", "list", "export", "verify", "repair"} do actions = actions + (given[key] and 1 or 0) end
  if actions > 1 then refuse("--dry-run, --verify, --repair, --list and --export exclude each other") end
  return given
end

return {DOC = DOC, DEFAULT_CONFIG = DEFAULT_CONFIG, EXIT = EXIT, EXIT_OF_STATUS = EXIT_OF_STATUS, refuse = refuse, help = helpText,
        parse = parseArguments}

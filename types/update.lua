---@meta update

-- Type stubs of the `update` module for the Lua language server (LuaLS): add this directory to
-- "workspace.library" and `local update = require "update"` completes and checks. Descriptions
-- are short; docs/reference.md is the reference.

---Drives the relay library that mirrors update components (scan engines, pattern files, rule
---packages) from update sources into a repository directory. Every function that reports a relay
---outcome returns the status triple: a success value (`true`, a result table, or `nil`), the
---status, and its message. A status above 0 is success; 0 and below are failures.
---@class update
local update = {}

---A relay status: above 0 success, 0 and below failure. Test it with `update.ok`.
---@alias update.Status integer

---Three parts of a version, the relay library's own.
---@class update.Version
---@field major integer
---@field minor integer
---@field build integer
---@field revision integer
---@field string string `"major.minor.build"`

---A product or component.
---@class update.Entity
---@field klass integer class: 1 products, 2 scan engines, 3 patterns, 22 rule packages, ...
---@field type integer
---@field language integer -1 when not given
---@field platform integer -1 when not given
---@field region integer -1 when not given
---@field oem integer -1 when not given
---@field version string display version, in the notation of the component's kind
---@field name string identifier: a product's carries its version (`c1t100v10.0.0l1p-1r-1o-1`), a component's does not (`c3t4l1p-1r-1o-1`)
---@field extract string identifier with the version, as `update.extract` takes it (`c3t4v16.1230.0l1p-1r-1o-1`)
---@field friendly? string friendly name of well-known components (`"kerno_english"`, `"tavi"`, ...)

---Each product followed by its components (array part); every entity with a friendly name also
---under that name, the later one when two share it.
---@class update.Result
---@field [integer] update.Entity
---@field [string] update.Entity

---@class update.Proxy
---@field type? integer 0 (or absent): HTTP proxy; any other number: SOCKS5
---@field host? string
---@field port? integer
---@field user? string
---@field password? string

---@class update.Source
---@field url? string a directory, `file://` or `http(s)://` address
---@field proxy? update.Proxy

---One source address, or a list of sources tried in order; nil for none (lists the repository).
---@alias update.Sources string|update.Source[]|nil

---One product identifier or a list of them (`{}`: every product, except for `everything`).
---@alias update.Products string|string[]

---What a handler receives while a mirror runs.
---@class update.Event
---@field type "download"|"progress"|"removebegin"|"removefailed"|"downloadbegin"|"downloadend"|"unknown"
---@field total? number bytes planned (`download`), the package's size, or the archive's size
---@field finished? number bytes of the package so far (`progress`, `downloadend`)
---@field information? string the source address, the package path, or the archive's path

---An event handler. It must return nothing (or `false`) to let the operation go on: any true
---value, or an error raised in it, cancels the operation ("cancelled").
---@alias update.Handler fun(event: update.Event): any

---@class update.Options
---@field maxbandwidth? integer KiB/s per transfer; 0 or less: no limit
---@field buildpatch? boolean keep per-version archives `packages/<identity>_<version>.zip`
---@field maxmerge? integer versions kept per merged archive (0: 1)
---@field diffcount? integer passed to the relay library
---@field keepcount? integer per-version archives kept per component (0: all)
---@field httpslevel? integer 0 no certificate check, 1 the peer's certificate, 2 (default) and host name
---@field file_type_blacklist? string comma-separated file extensions not to mirror
---@field enable_check_file_type_blacklist? boolean apply `file_type_blacklist`
---@field lowspeedlimit? integer bytes/s a transfer must average over `lowspeedtime` (default 1024)
---@field lowspeedtime? integer seconds of the floor rate's window (default 60)
---@field catalogtimeout? integer seconds a source's catalogs may take in all (default 300; 0: none)
---@field ke? boolean `true`: no clean-up after `everything`, `patterns`, `patternsExceptKerno`
---@field removeke? fun(path: string): any keep predicate of the clean-up after the mirror
---@field download? update.Handler
---@field downloadbegin? update.Handler
---@field progress? update.Handler
---@field downloadend? update.Handler
---@field removebegin? update.Handler
---@field removefailed? update.Handler
---@field unknown? update.Handler events of a type without a name

---Starts the relay library (the module starts it when first loaded).
---@return true|nil ok
---@return update.Status status
---@return string message
function update.startup() end

---Stops the relay library; operations then answer "relay library not started" until `startup()`.
---@return true|nil ok
---@return update.Status status
---@return string message
function update.shutdown() end

---The relay library's version.
---@return update.Version|nil version
---@return update.Status status
---@return string message
function update.version() end

---Whether a status means success: its low 32 bits, signed, above 0. `false` for anything that is
---not a number or a numeric string.
---@param status any
---@return boolean
---@nodiscard
function update.ok(status) end

---The entity table of an identifier string (`nil` for an identifier with a field of -10).
---Raises "bad argument #1 to 'tocomponent' (...)" for a malformed identifier.
---@param identifier string
---@return update.Entity|nil
---@nodiscard
function update.tocomponent(identifier) end

---The product identifier of an identifier string, with the version in display notation:
---`toproduct("c3t4v16.1230")` is `"c3t4v16.123.0l-1p-1r-1o-1"`.
---@param identifier string
---@return string
---@nodiscard
function update.toproduct(identifier) end

---Lists products: with sources, the first reachable source's catalog (each component at its
---newest version); without, what the repository holds (every version, newest first).
---@param repository string
---@param products update.Products
---@param sources? update.Sources
---@param options? update.Options
---@return update.Result|nil result
---@return update.Status status
---@return string message
function update.list(repository, products, sources, options) end

---Mirrors the products whole. `{}` mirrors nothing. The clean-up runs afterwards unless
---`options.ke` is true.
---@param repository string
---@param products update.Products
---@param sources? update.Sources
---@param options? update.Options
---@return update.Result|nil result the products named and the components now held for them
---@return update.Status status
---@return string message
function update.everything(repository, products, sources, options) end

---Mirrors only the patterns (class 3) and the rule package (class 22, type 2213) of the products;
---`{}` takes every product the source lists. The clean-up runs afterwards unless `options.ke`.
---@param repository string
---@param products update.Products
---@param sources? update.Sources
---@param options? update.Options
---@return update.Result|nil result
---@return update.Status status
---@return string message
function update.patterns(repository, products, sources, options) end

---As `patterns`, without the kerno patterns (class 3, type 4).
---@param repository string
---@param products update.Products
---@param sources? update.Sources
---@param options? update.Options
---@return update.Result|nil result
---@return update.Status status
---@return string message
function update.patternsExceptKerno(repository, products, sources, options) end

---Mirrors only the components whose class and type one of the names gives; no names, nothing.
---Never cleans up.
---@param repository string
---@param products update.Products
---@param sources? update.Sources
---@param options? update.Options
---@param names? string|string[]
---@return update.Result|nil result
---@return update.Status status
---@return string message
function update.components(repository, products, sources, options, names) end

---Writes one held component's package into the destination directory (created when missing).
---@param repository string
---@param component string|update.Entity|{extract: string} an identifier, or a table whose `extract` field holds one
---@param destination string
---@return true|nil ok
---@return update.Status status
---@return string message
function update.extract(repository, component, destination) end

---The clean-up: resets `server.ini` and deletes the per-version archives of `packages/` (every
---`*.zip` but `*_merged.zip`) that `keep` does not keep (a true answer keeps one).
---@param repository string
---@param keep? fun(path: string): any
---@return true|nil ok
---@return string? message `"<repository> is not a repository"` when it has no readable `server.ini`
function update.removeke(repository, keep) end

return update

-- Renders a command's documentation table as a troff manual page (man(7) macros), at build time:
--
--   lua5.2 command/manpage.lua command/update_mirror/arguments.lua DATE > update-mirror.1
--
-- The command's arguments module returns its DOC table (as the field DOC); --help is made from
-- the same table, so the page and the help never disagree.
local path, date = ...
if not path then
  io.stderr:write("usage: lua5.2 manpage.lua MODULE.lua [DATE]\n")
  os.exit(2)
end
local loaded = assert(loadfile(path))()
local doc = type(loaded) == "table" and (loaded.DOC or loaded)
assert(type(doc) == "table" and doc.options, path .. " returned no documentation table")

-- troff escapes: backslashes, leading dots and quotes, and hyphens that are minus signs in flags.
local function escape(text)
  text = text:gsub("\\", "\\e"):gsub("%-", "\\-")
  return (text:gsub("\n([.'])", "\n\\&%1"):gsub("^([.'])", "\\&%1"))
end

local out = {}
local function put(line) out[#out + 1] = line end

put(string.format('.TH %s 1 "%s" "%s" "User Commands"', doc.name:upper(), date or "", doc.name))
put(".SH NAME")
put(escape(doc.name) .. " \\- " .. escape(doc.summary))
put(".SH SYNOPSIS")
for i, line in ipairs(doc.synopsis) do
  if i > 1 then put(".br") end
  put(".B " .. escape(line))
end
put(".SH DESCRIPTION")
for _, paragraph in ipairs(doc.description) do
  put(".PP")
  put(escape(paragraph))
end
put(".SH OPTIONS")
for _, option in ipairs(doc.options) do
  put(".TP")
  local flags = (option.short and "\\fB" .. escape(option.short) .. "\\fR, " or "") .. "\\fB" .. escape(option.flag) .. "\\fR"
  put(flags .. (option.arg and " \\fI" .. escape(option.arg) .. "\\fR" or ""))
  put(escape(option.text) .. ".")
end
-- A section's paragraphs: one with line breaks is shown as typed (configuration, lists), a table
-- of {term, text} pairs is a tagged list.
for _, section in ipairs(doc.sections) do
  put(".SH " .. section[1])
  for i = 2, #section do
    if type(section[i]) == "table" then
      for _, entry in ipairs(section[i]) do
        put(".TP")
        put(".B " .. escape(entry[1]))
        put(escape(entry[2]))
      end
    elseif section[i]:find("\n") then
      put(".PP")
      put(".nf")
      put(".RS 4")
      put(escape(section[i]))
      put(".RE")
      put(".fi")
    else
      put(".PP")
      put(escape(section[i]))
    end
  end
end
io.write(table.concat(out, "\n"), "\n")

-- components.lua: mirrors only the components of the kinds named, from every product the source
-- lists. A name is an identifier of which only the class and type count: c3t4 names the type 4
-- pattern in every language, c2t1207960066 the scan engine of that type.
--
--   lua5.2 components.lua REPOSITORY SOURCE [NAME...]
--
-- Without names it mirrors the scan engine and the rule package. Nothing is cleaned up afterwards:
-- components() never runs the clean-up.
local update = require "update"

local repository, source = arg[1], arg[2]
if not repository or not source then
  io.stderr:write("usage: lua5.2 components.lua REPOSITORY SOURCE [NAME...]\n")
  os.exit(2)
end
local names = {table.unpack(arg, 3)}
if #names == 0 then names = {"c2t1207960066", "c22t2213"} end

-- Products {} lists every product of the source; the names then pick the components.
local held, status, message = update.components(repository, {}, source, nil, names)
if not update.ok(status) then
  io.stderr:write(string.format("components: mirroring failed: %s (status %d)\n", message, status))
  os.exit(1)
end

-- The result lists each product followed by the components of it now held; a product's name
-- carries its version, a component's does not.
for _, entity in ipairs(held) do
  if entity.name:match("^c%-?%d+t%-?%d+v") then
    print("product " .. entity.name)
  else
    print(string.format("  %-14s %-8s %s", entity.friendly or "-", entity.version, entity.name))
  end
end

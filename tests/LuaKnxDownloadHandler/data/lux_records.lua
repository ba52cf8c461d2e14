-- Parameter lists by channel type id, for the bridge's record tests.

local types = {}

-- Unsorted keys.
types[1] = function() return { { Key = "b" }, { Key = "a" }, { Key = "ab" } } end

-- Byte-wise order: no key first, capitals before small letters, 0x7f before UTF-8.
types[2] = function()
  return { { Key = "b" }, { Key = "a\xc3\xa4" }, { Key = "a" }, { Key = "a\x7f" }, { Key = "B" }, {} }
end

-- One empty parameter table.
types[3] = function() return { {} } end

-- Each field with right and wrong value types.
types[4] = function()
  return {
    { Key = "k4", Digits = -1, Type = {} },
    { Key = "k2", Type = 1.5, Digits = "3" },
    { Key = "full", Type = "UInt8", Digits = 3, Property = { PropertyId = 300, InterfaceObjectId = 7 } },
    { Key = "k3", Digits = 0x100000003 },
    { Key = "k1", Type = 12, Digits = 2.0, Property = 5 },
  }
end

-- Elements that are no tables, and keys of every kind in the list itself.
types[5] = function()
  return { 5, "x", { Key = "y" }, named = { Key = "x" }, [true] = { Key = "z" }, [2.5] = 7 }
end

types[4294967295] = function(id) return { { Key = id .. ":" .. math.type(id) } } end

-- Results that are no tables.
types[100] = function() return nil end
types[101] = function() return 5 end
types[102] = function() return "text" end
types[103] = function() return true end
types[104] = function() return false end
types[105] = function() return print end

-- Ten thousand parameters in reverse order.
types[10000] = function()
  local list = {}
  for i = 9999, 0, -1 do
    list[#list + 1] = { Key = string.format("p%05d", i), Digits = i % 7, Property = { PropertyId = i % 256 } }
  end
  return list
end

-- ShowIf rules.
types[20] = function()
  return { { Key = "s", ShowIf = { PropertyIds = { { Id = { PropertyId = 1, InterfaceObjectId = 2 }, Type = "Bool" } } } } }
end

types[21] = function()
  return {
    {
      Key = "t",
      ShowIf = {
        Function = function(value) return value == 5 end,
        PropertyIds = {
          { Type = "UInt8", Id = { PropertyId = 10, InterfaceObjectId = 1 } },
          { Type = "Int16", Id = { PropertyId = 11, InterfaceObjectId = 1 } },
          5,
          {},
          { Type = 7, Id = 3 },
          "skip",
          { Id = { PropertyId = 12, InterfaceObjectId = 3 }, Type = "Bool" },
        },
      },
    },
  }
end

types[22] = function()
  return {
    { Key = "a", ShowIf = 5 },
    { Key = "b", ShowIf = { Function = "not a function", PropertyIds = 5 } },
    { Key = "c", ShowIf = {} },
  }
end

function GetParametersFromChannelTypeId(id)
  local make = types[id]
  if make == nil then error("no type " .. id, 0) end
  return make(id)
end

-- A description script that exercises every value type, URN selection by a
-- property, ShowIf rules of every argument kind, and nested, enabled and
-- disabled static data. Property ids follow the demo device where they overlap.

local function prop(object, id) return { InterfaceObjectId = object, PropertyId = id } end

function GetPropertyIds()
  return {
    MaxFunctionPerFolder = prop(0, 10), MaxNameCharCount = prop(0, 11),
    MaxTextCharCount = prop(0, 12), MaxUrlCharCount = prop(0, 13),
    ShowRootFolder = prop(0, 20), ShowOutdoorTemp = prop(0, 21), ShowIndoorTemp = prop(0, 22),
    ShowDateTime = prop(0, 23), UseTVK = prop(0, 24), DcsType = prop(0, 25),
    UseDcsFloorcall = prop(0, 26), DcsFloorCallNameOffset = prop(0, 27),
    DcsFloorCallMelody = prop(0, 28), UseWeather = prop(0, 29), UseTimers = prop(0, 30),
    UseHeatingTimers = prop(0, 31), ResetUserData = prop(0, 32),
    NumberOfFolders = prop(0, 40), FolderNameOffset = prop(0, 41), FolderIcon = prop(0, 42),
    FolderShowOnHome = prop(0, 43), NumberFuncPerFolder = prop(0, 44),
    ChannelType = prop(1, 50), FunctionNameOffset = prop(1, 51),
  }
end

function IsThereUrnsByPropertyIndex(typeId) return typeId % 2 == 0 end
function GetPropertyIndexForUrns(typeId) return prop(1, 52) end
function GetFunctionUrnByTypeId(typeId)
  if typeId == 3 then return nil end  -- no URN: "Unsupported"
  return "urn:test:function:" .. typeId
end
function GetChannelUrnByTypeId(typeId) return "urn:test:channel:" .. typeId end
function GetFunctionUrnByTypeIdAndPropertyIndex(typeId, index)
  return "urn:test:function:" .. typeId .. ":" .. index
end
function GetChannelUrnByTypeIdAndPropertyIndex(typeId, index)
  if index == 7 then return nil end
  return "urn:test:channel:" .. typeId .. ":" .. index
end
function GetLuaTemplateIndexByTypeIdAndPropertyIndex(typeId, index)
  if index == 0 then return "" end
  return tostring(index)
end

local types = { "Bool", "Int8", "Int16", "Int32", "UInt8", "UInt16", "UInt32",
                "Float16", "Float32", "Text", "Name", "Url", "GENERIC_20", "bool", "Unknown" }

-- Shown when every argument is truthy and numbers are positive.
local function allOn(...)
  for _, v in ipairs({ ... }) do
    if v == false or v == nil or (type(v) == "number" and v <= 0) then return false end
  end
  return true
end

function GetParametersFromChannelTypeId(typeId)
  local list = {}
  for i, t in ipairs(types) do
    local parameter = { Key = t .. "Value", Type = t, Digits = (i % 4), Property = prop(1, 59 + i) }
    if i % 3 == 0 then
      parameter.ShowIf = {
        PropertyIds = {
          { Id = prop(1, 53), Type = "Bool" }, { Id = prop(1, 54), Type = "UInt8" },
          { Id = prop(1, 55), Type = "Int16" }, { Id = prop(1, 56), Type = "Float16" },
          { Id = prop(1, 57), Type = "Name" }, { Id = prop(1, 58), Type = "Url" },
          { Id = prop(1, 59), Type = "UInt32" },
        },
        Function = allOn,
      }
    end
    list[#list + 1] = parameter
  end
  return list
end

function GetStaticData()
  return {
    Weather = { Type = "weather", EnabledProperty = prop(2, 70),
      Parameters = {
        { Key = "City", Type = "Text", Property = prop(2, 71) },
        { Key = "Url", Type = "Url", Property = prop(2, 72) },
        { Key = "Temperature", Type = "Float16", Digits = 1, Property = prop(2, 73) },
        { Key = "Label", Type = "Name", Property = prop(2, 74) },
        { Key = "Raw", Type = "Float32", Digits = 3, Property = prop(2, 75),
          ShowIf = { PropertyIds = { { Id = prop(2, 70), Type = "Bool" } }, Function = allOn } },
      } },
    Timers = { Type = "timers",
      SubData = {
        Morning = { Type = "timer", EnabledProperty = prop(2, 76),
          Parameters = { { Key = "Hour", Type = "UInt8", Property = prop(2, 77) } },
          SubData = { Days = { Type = "days",
            Parameters = { { Key = "Mask", Type = "UInt8", Property = prop(2, 78) } } } } },
        Evening = { Type = "timer", EnabledProperty = prop(2, 79),
          Parameters = { { Key = "Hour", Type = "Int8", Property = prop(2, 80) } } },
      } },
  }
end

function HandleDcsType(dcsType) end

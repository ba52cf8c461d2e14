-- A small device for the host command tests: one folder with one switching
-- function and no static data. Interface object 0 holds the settings.
local function p(id) return { InterfaceObjectId = 0, PropertyId = id } end

function GetPropertyIds()
  return {
    MaxFunctionPerFolder = p(51),
    MaxNameCharCount = p(52),
    MaxTextCharCount = p(53),
    MaxUrlCharCount = p(54),
    ResetUserData = p(55),
    NumberOfFolders = p(56),
    FolderNameOffset = p(57),
    NumberFuncPerFolder = p(58),
    ChannelType = p(59),
  }
end

function IsThereUrnsByPropertyIndex(typeId) return false end
function GetPropertyIndexForUrns(typeId) return {} end
function GetFunctionUrnByTypeId(typeId) return "urn:demo:function:switch" end
function GetChannelUrnByTypeId(typeId) return "urn:demo:channel:switch" end
function GetFunctionUrnByTypeIdAndPropertyIndex(typeId, index) return "" end
function GetChannelUrnByTypeIdAndPropertyIndex(typeId, index) return "" end
function GetLuaTemplateIndexByTypeIdAndPropertyIndex(typeId, index) return "" end
function GetParametersFromChannelTypeId(typeId)
  return { { Key = "State", Type = "Bool", Property = p(60) } }
end
function GetStaticData() return {} end
function HandleDcsType(dcsType) end

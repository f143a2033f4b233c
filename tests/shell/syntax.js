Shell.Echo("before");
var x = ;

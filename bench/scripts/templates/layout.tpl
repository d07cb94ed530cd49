<!DOCTYPE html>
<html>
<head><title>{block name=title}Shop{/block}</title></head>
<body>
{function name=menu level=0}
<ul class="level{$level}">
{foreach $entries as $title => $below}
  <li>{$title|escape}{if $below}{menu entries=$below level=$level+1}{/if}</li>
{/foreach}
</ul>
{/function}
{menu entries=$menu}
{block name=content}{/block}
<footer>{mailto address="shop@shop.example" text="Write to us"}</footer>
</body>
</html>

{extends file="layout.tpl"}
{block name=title}Page {$page} of the shop{/block}
{block name=content}
<table>
{foreach $products as $product}
{include file="product.tpl" product=$product odd=$product@iteration is odd}
{/foreach}
</table>
<p>{counter start=1 assign=count}{$products|@count} products</p>
{/block}
